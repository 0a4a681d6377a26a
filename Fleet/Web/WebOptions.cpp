// What tavi-web is told on its command line.
#include "Fleet/Web/WebOptions.h"

#include <CLI/CLI.hpp>
#include <ostream>
#include <string>

#include "Control/CommandLine.h"
#include "SettingsFile/SettingsFile.h"

namespace Tavi::Web {
namespace {

constexpr int UsageExitStatus = 2;

struct Words : CommandLine::ConfigWords {
  std::string address;
  int port = -1;
  std::string control;
  std::string events;
};

void AddOptions(CLI::App& app, Words& words) {
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", "tavi-web " TAVI_VERSION);
  CommandLine::AddConfigOptions(
      app, words,
      "Settings, a JSON file (console.md in docs/ or /usr/share/doc/tavi-web/); the options below win over it");
  app.add_option("--address", words.address, "Address to listen at; another than loopback needs a token");
  app.add_option("--port", words.port, "TCP port; 0: one that is free");
  app.add_option("--control", words.control, "Path of the recorder's control socket");
  app.add_option("--events", words.events, "Directory of all events; without it where the recorder says");
}

void Apply(const Words& words, WebSettings& settings) {
  if (!words.address.empty()) settings.address = words.address;
  if (words.port != -1) settings.port = words.port;
  if (!words.control.empty()) settings.controlSocket = words.control;
  if (!words.events.empty()) settings.eventsDir = words.events;
}

}  // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv, WebSettings& settings, std::ostream& out,
                                std::ostream& err) {
  CLI::App app("The recorder's console in the browser: its events, live pictures, its state.", "tavi-web");
  Words words;
  AddOptions(app, words);
  std::string problem;
  try {
    CommandLine::Parse(app, argc, argv);
    if (words.config.empty() || SettingsFile::LoadFields(words.config, DescribeFields(settings), problem)) {
      Apply(words, settings);
      problem = CheckSettings(settings);
    }
  } catch (const CLI::Success& done) {
    app.exit(done, out, err);
    return 0;
  } catch (const CLI::ParseError& error) {
    problem = error.what();
  }
  if (!problem.empty()) {
    err << "tavi-web: " << problem << "\n";
    return UsageExitStatus;
  }
  if (CommandLine::AnswerConfig(words, SettingsFile::FormatFields(DescribeFields(settings)), out)) return 0;
  return std::nullopt;
}

}  // namespace Tavi::Web
