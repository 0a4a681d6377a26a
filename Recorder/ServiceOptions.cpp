// What `tavi-recorder run` is told on its command line.
#include "Recorder/ServiceOptions.h"

#include <CLI/CLI.hpp>
#include <ostream>
#include <string>

#include "Control/CommandLine.h"

namespace Tavi::Recorder {
namespace {

constexpr int UsageExitStatus = 2;

struct Words : CommandLine::ConfigWords {
  bool simulate = false;
  std::string output;
  std::string control;
  std::string log;
};

void AddOptions(CLI::App& app, Words& words) {
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  CommandLine::AddConfigOptions(
      app, words,
      "Settings, a JSON file (settings.md in docs/ or /usr/share/doc/tavi-recorder/); the options below win over it");
  app.add_flag("--simulate", words.simulate, "A simulated car in place of the devices");
  app.add_option("--output", words.output, "One directory for all that the recorder writes: events/ and what it needs");
  app.add_option("--control", words.control, "Path of the Unix socket that takes commands");
  app.add_option("--log", words.log, "Append the log to this file, too");
}

void Apply(const Words& words, Settings& settings) {
  if (words.simulate) settings.simulate = true;
  if (!words.control.empty()) settings.control.socket = words.control;
  if (!words.log.empty()) settings.logFile = words.log;
  if (words.output.empty()) return;
  const std::string dir = words.output.back() == '/' ? words.output : words.output + "/";
  settings.storage.eventsDir = dir + "events/";
  settings.storage.workDir = dir + "work/";
  settings.storage.backupDir = dir + "power_failure/";
  settings.storage.restoreDir = dir + "power_restore/";
}

}  // namespace

std::optional<int> ParseServiceOptions(int argc, const char* const* argv, Settings& settings, std::ostream& out,
                                       std::ostream& err) {
  CLI::App app("Records until it is told to end (SIGINT, SIGTERM, tavi-ctl stop), and takes commands on a socket.",
               "tavi-recorder run");
  Words words;
  AddOptions(app, words);
  std::string problem;
  try {
    CommandLine::Parse(app, argc, argv);
    if (words.config.empty() || LoadSettings(words.config, settings, problem)) {
      Apply(words, settings);
      problem = CheckSettings(settings);
      // The recorder goes on without a group; who asks is to know.
      if (problem.empty() && words.checkConfig) problem = CheckGroups(settings);
    }
  } catch (const CLI::Success& done) {
    app.exit(done, out, err);
    return 0;
  } catch (const CLI::ParseError& error) {
    problem = error.what();
  }
  if (!problem.empty()) {
    err << "tavi-recorder: " << problem << "\n";
    return UsageExitStatus;
  }
  if (CommandLine::AnswerConfig(words, FormatSettings(settings), out)) return 0;
  return std::nullopt;
}

}  // namespace Tavi::Recorder
