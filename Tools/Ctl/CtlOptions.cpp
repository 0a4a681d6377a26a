// What tavi-ctl is told on its command line.
#include "Tools/Ctl/CtlOptions.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <ostream>

#include "Control/CommandLine.h"
#include "Control/SocketAddress.h"
#include "Tools/Ctl/EventsDirectory.h"
#include "Tools/Ctl/ReplyText.h"

namespace Tavi::Ctl {
namespace {

using namespace Tavi::Recorder;

constexpr double DefaultTimeoutSeconds = 10.0;
constexpr double ShortestTimeoutSeconds = 0.001;
constexpr double LongestTimeoutSeconds = 86400.0;

/// What the command line may say beside the options proper.
struct Arguments {
  EventRequest event;
  std::string ignitionState;
  bool unprotect = false;
  bool evenProtected = false;
  std::string laterLabel;
};

/// `check` gives what is wrong with a text, empty when nothing is.
CLI::Validator TextCheck(std::function<std::string(std::string&)> check) {
  return CLI::Validator(std::move(check), "");
}

CLI::Validator WholeNumber(int highest) {
  return TextCheck([highest](std::string& text) -> std::string {
    int value = 0;
    if (CLI::detail::lexical_cast(text, value) && value >= 0 && value <= highest) return {};
    return fmt::format("\"{}\" is no whole number from 0 to {}", text, highest);
  });
}

CLI::Validator Seconds(double lowest) {
  return TextCheck([lowest](std::string& text) -> std::string {
    double value = 0.0;
    const bool isNumber = CLI::detail::lexical_cast(text, value) && std::isfinite(value);
    if (isNumber && value >= lowest && value <= LongestTimeoutSeconds) return {};
    return fmt::format("\"{}\" is no number of seconds from {} to {}", text, lowest, LongestTimeoutSeconds);
  });
}

std::string CheckSocketPath(std::string& text) {
  std::string problem;
  BuildSocketAddress(text, problem);
  return problem;
}

CLI::Validator EventWord() {
  return TextCheck([](std::string& text) { return CheckEventWord(text); });
}

void AddEventCommand(CLI::App& app, EventRequest& event) {
  auto* command = app.add_subcommand(Command::Event, "Make files of a window around now");
  command->add_option("--before", event.beforeSeconds, "Seconds before now at which the window begins")
      ->type_name("S")
      ->check(WholeNumber(LongestBeforeSeconds));
  command->add_option("--duration", event.durationSeconds, "Length of the window in seconds")
      ->type_name("S")
      ->check(WholeNumber(LongestDurationSeconds));
  command->add_flag_callback(
      "--preview", [&event] { event.preview = true; }, "Make the small clip of both cameras, too");
  command->add_flag_callback(
      "--no-preview", [&event] { event.preview = false; }, "Do not make it");
  command->add_option("--label", event.label, fmt::format("A text of up to {} characters", MaxLabelCharacters))
      ->type_name("TEXT")
      ->check(TextCheck([](std::string& text) { return CheckLabel(text); }));
  command->add_flag("--keep", event.keep, "Never remove the event to make room");
  command->add_flag("--wait", event.wait, "Wait until the files are complete");
}

void AddEventWords(CLI::App& command, CtlOptions& options) {
  command
      .add_option("ID", options.events, "An event's id or its first digits; \"last\" for the newest; several of them")
      ->required()
      ->type_name("")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(EventWord());
}

void AddEventsDir(CLI::App& command, CtlOptions& options) {
  command.add_option("--events", options.eventsDir, "Directory of the events; needs no recorder")->type_name("DIR");
}

void AddExport(CLI::App& app, CtlOptions& options) {
  auto* command = app.add_subcommand(LocalCommand::Export, "Write events for other programs");
  AddEventWords(*command, options);
  AddEventsDir(*command, options);
  auto& wanted = options.exported;
  command->add_option("--output", wanted.outputDir, "Directory for the files, made when it is missing")
      ->type_name("DIR")
      ->required();
  command->add_flag("--gpx", wanted.gpx, "The track as GPX 1.1; without any of these all but --files");
  command->add_flag("--csv", wanted.csv, "Position, acceleration and machine state as one table");
  command->add_flag("--geojson", wanted.geoJson, "The track as GeoJSON");
  command->add_flag("--subtitles", wanted.subtitles, "Speed and position as WebVTT subtitles");
  command->add_flag("--files", wanted.files, "The event's own directory, as it is");
}

void AddCommandsOnEvents(CLI::App& app, CtlOptions& options, Arguments& arguments) {
  AddEventsDir(*app.add_subcommand(Command::Events, "List the events"), options);
  auto* show = app.add_subcommand(LocalCommand::Show, "Tell all that is known of events");
  AddEventWords(*show, options);
  AddEventsDir(*show, options);
  AddExport(app, options);
  auto* protect = app.add_subcommand(Command::Protect, "Keep events from being removed to make room");
  AddEventWords(*protect, options);
  protect->add_flag("--off", arguments.unprotect, "Let them be removed again");
  auto* label = app.add_subcommand(Command::Label, "Write down what is to be said of an event");
  label->add_option("ID", options.events, "An event's id or its first digits; \"last\" for the newest")
      ->required()
      ->type_name("")
      ->expected(1)
      ->allow_extra_args(false)
      ->check(EventWord());
  label->add_option("TEXT", arguments.laterLabel, "It takes the place of what was written before; \"\" for nothing")
      ->required()
      ->type_name("")
      ->check(TextCheck([](std::string& text) { return CheckLabel(text); }));
  auto* remove = app.add_subcommand(Command::Remove, "Remove events for good, each after a yes on the terminal");
  AddEventWords(*remove, options);
  remove->add_flag("--yes", options.isSure, "Do not ask");
  remove->add_flag("--protected", arguments.evenProtected, "Also those that are protected");
}

void AddCommands(CLI::App& app, CtlOptions& options, Arguments& arguments) {
  app.require_subcommand(1);
  app.add_subcommand(Command::Status, "What the recorder is doing");
  AddEventCommand(app, arguments.event);
  AddCommandsOnEvents(app, options, arguments);
  auto* ignition = app.add_subcommand(Command::Ignition, "Tell the recorder that the ignition is on or off");
  ignition->add_option("STATE", arguments.ignitionState, "on or off")
      ->required()
      ->type_name("")
      ->check(TextCheck([](std::string& text) {
        return text == "on" || text == "off" ? "" : fmt::format("\"{}\" is neither on nor off", text);
      }));
  app.add_subcommand(Command::PowerFail, "Tell the recorder that the power is failing");
  app.add_subcommand(Command::Metrics, "Counters and gauges in Prometheus' text format");
  app.add_subcommand(Command::Identity, "The public key that events are signed with, for tavi-verify --key");
  app.add_subcommand(Command::Stop, "End the recorder");
}

/// "tavi-ctl protect ID... [--off]" for each command.
std::string DescribeForms(const CLI::App& app) {
  std::string text = "Forms:\n";
  for (const CLI::App* command : app.get_subcommands({})) {
    text += "  " + app.get_name() + " " + command->get_name();
    std::string optional;
    for (const CLI::Option* option : command->get_options()) {
      const bool isPositional = option->get_positional();
      const std::string type = option->get_type_name();
      const std::string word = option->get_name(isPositional) + (type.empty() ? "" : " " + type) +
                               (isPositional && option->get_items_expected_max() > 1 ? "..." : "");
      if (option->get_required()) text += " " + word;
      if (!option->get_required() && word != "--help") optional += " [" + word + "]";
    }
    text += optional + "\n";
  }
  return text + "Each of them takes the options above, too, and has a --help of its own.";
}

nlohmann::ordered_json BuildRequestOf(const std::string& command, const Arguments& arguments) {
  if (command == Command::Events || command == LocalCommand::Show || command == LocalCommand::Export) return nullptr;
  if (command == Command::Event) return BuildRequest(arguments.event);
  if (command == Command::Ignition) return BuildRequest(IgnitionRequest{arguments.ignitionState == "on"});
  if (command == Command::Protect) return BuildRequest(ProtectRequest{"", !arguments.unprotect});
  if (command == Command::Label) return BuildRequest(LabelRequest{"", arguments.laterLabel});
  if (command == Command::Remove) return BuildRequest(RemoveRequest{"", arguments.evenProtected});
  return {{"command", command}};
}

void AddOptions(CLI::App& app, CtlOptions& options) {
  app.fallthrough();
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", "tavi-ctl " TAVI_VERSION);
  app.add_option("--control", options.socketPath, "The recorder's control socket")
      ->type_name("SOCKET")
      ->check(TextCheck(CheckSocketPath))
      ->capture_default_str();
  app.add_option("--timeout", options.timeoutSeconds, "Seconds to wait for the reply (10; with --wait: no end)")
      ->type_name("S")
      ->check(Seconds(ShortestTimeoutSeconds));
  app.add_option("--connect", options.connectSeconds, "Seconds to wait for a recorder that is about to start")
      ->type_name("S")
      ->check(Seconds(0.0))
      ->capture_default_str();
  app.add_flag("--json", options.json, "Print JSON, a line for each answer");
}

std::chrono::milliseconds ToMilliseconds(double seconds) {
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

}  // namespace

std::optional<std::chrono::milliseconds> GetTimeout(const CtlOptions& options) {
  if (!options.timeoutSeconds) return std::nullopt;
  return ToMilliseconds(*options.timeoutSeconds);
}

std::chrono::milliseconds GetConnectTime(const CtlOptions& options) {
  return ToMilliseconds(options.connectSeconds);
}

std::optional<int> ParseOptions(int argc, const char* const* argv, CtlOptions& options, std::ostream& out,
                                std::ostream& err) {
  CLI::App app("Asks and steers a running recorder, and looks at its events.", "tavi-ctl");
  Arguments arguments;
  AddOptions(app, options);
  AddCommands(app, options, arguments);
  app.footer(DescribeForms(app));
  try {
    CommandLine::Parse(app, argc, argv);
  } catch (const CLI::Success& done) {
    app.exit(done, out, err);
    return 0;
  } catch (const CLI::ParseError& error) {
    err << "tavi-ctl: " << MakePrintable(error.what()) << "\n";
    return UsageExitStatus;
  }
  options.command = app.get_subcommands().front()->get_name();
  options.request = BuildRequestOf(options.command, arguments);
  if (!options.timeoutSeconds && !arguments.event.wait) options.timeoutSeconds = DefaultTimeoutSeconds;
  return std::nullopt;
}

}  // namespace Tavi::Ctl
