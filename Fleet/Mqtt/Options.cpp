// What tavi-mqtt is told on its command line.
#include "Fleet/Mqtt/Options.h"

#include <CLI/CLI.hpp>
#include <ostream>

#include "Control/CommandLine.h"

namespace Tavi::Mqtt {
namespace {

using Words = CommandLine::ConfigWords;

void AddOptions(CLI::App& app, Words& words) {
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", "tavi-mqtt " TAVI_VERSION);
  CommandLine::AddConfigOptions(app, words, "Settings, a JSON file (mqtt.md in docs/ or /usr/share/doc/tavi-mqtt/)");
}

/// Empty, or what is wrong with what the program is to run with.
std::string Complete(Settings& settings, std::string& password) {
  CompleteSettings(settings);
  std::string problem = CheckSettings(settings);
  if (problem.empty()) static_cast<void>(ReadSecrets(settings, password, problem));
  return problem;
}

}  // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv, Settings& settings, std::string& password,
                                std::ostream& out, std::ostream& err) {
  CLI::App app("Publishes a recorder's events and health over MQTT until it is told to end (SIGINT, SIGTERM).",
               "tavi-mqtt");
  Words words;
  AddOptions(app, words);
  std::string problem;
  try {
    CommandLine::Parse(app, argc, argv);
    const bool isLoaded = words.config.empty() || LoadSettings(words.config, settings, problem);
    // Who has no broker yet begins with what is printed.
    if (isLoaded && !words.printConfig) problem = Complete(settings, password);
  } catch (const CLI::Success& done) {
    app.exit(done, out, err);
    return 0;
  } catch (const CLI::ParseError& error) {
    problem = error.what();
  }
  if (!problem.empty()) {
    err << "tavi-mqtt: " << problem << "\n";
    return UsageStatus;
  }
  if (CommandLine::AnswerConfig(words, FormatSettings(settings), out)) return 0;
  return std::nullopt;
}

}  // namespace Tavi::Mqtt
