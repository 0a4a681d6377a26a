// What tavi-mqtt is told on its command line.
#include "Fleet/Mqtt/Options.h"

#include <CLI/CLI.hpp>
#include <ostream>

#include "Control/CommandLine.h"

namespace Tavi::Mqtt {
namespace {

struct Words {
  std::string config;
  bool checkConfig = false;
  bool printConfig = false;
};

void AddOptions(CLI::App& app, Words& words) {
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", "tavi-mqtt " TAVI_VERSION);
  app.add_option("--config", words.config, "Settings, a JSON file (mqtt.md in docs/ or /usr/share/doc/tavi-mqtt/)");
  app.add_flag("--check-config", words.checkConfig, "Only say whether the settings are right");
  app.add_flag("--print-config", words.printConfig, "Only print the settings, the defaults among them, as such a file");
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
  if (words.printConfig) {
    out << FormatSettings(settings);
  } else if (words.checkConfig) {
    out << (words.config.empty() ? "" : words.config + ": ") << "the settings are right\n";
  }
  if (words.printConfig || words.checkConfig) return 0;
  return std::nullopt;
}

}  // namespace Tavi::Mqtt
