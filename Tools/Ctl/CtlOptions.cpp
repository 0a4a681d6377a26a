// What tavi-ctl is told on its command line.
#include "Tools/Ctl/CtlOptions.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <ostream>

#include "Control/SocketAddress.h"

namespace Tavi::Ctl {
namespace {

using namespace Tavi::Recorder;

constexpr int UsageExitStatus = 2;
constexpr double DefaultTimeoutSeconds = 10.0;
constexpr double LongestTimeoutSeconds = 86400.0;

/// What the command line may say beside the options proper.
struct Arguments {
  EventRequest event;
  IgnitionRequest ignition;
  ProtectRequest protect;
  std::string ignitionState;
  bool unprotect = false;
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

std::string CheckTimeout(std::string& text) {
  double value = 0.0;
  if (CLI::detail::lexical_cast(text, value) && std::isfinite(value) && value > 0.0 && value <= LongestTimeoutSeconds) {
    return {};
  }
  return fmt::format("\"{}\" is no number of seconds above 0 and up to {}", text, LongestTimeoutSeconds);
}

std::string CheckSocketPath(std::string& text) {
  std::string problem;
  BuildSocketAddress(text, problem);
  return problem;
}

std::string CheckEventId(std::string& text) {
  return IsEventId(text) ? "" : fmt::format("\"{}\" is no event's id; \"events\" lists them", text);
}

void AddEventCommand(CLI::App& app, EventRequest& event) {
  auto* command = app.add_subcommand(Command::Event, "Make files of a window around now");
  command->add_option("--before", event.beforeSeconds, "Seconds before now at which the window begins")
      ->check(WholeNumber(LongestBeforeSeconds));
  command->add_option("--duration", event.durationSeconds, "Length of the window in seconds")
      ->check(WholeNumber(LongestDurationSeconds));
  command->add_flag_callback(
      "--preview", [&event] { event.preview = true; }, "Make the small clip of both cameras, too");
  command->add_flag_callback(
      "--no-preview", [&event] { event.preview = false; }, "Do not make it");
  command->add_option("--label", event.label, fmt::format("A text of up to {} characters", MaxLabelCharacters))
      ->check(TextCheck([](std::string& text) { return CheckLabel(text); }));
  command->add_flag("--keep", event.keep, "Never remove the event to make room");
  command->add_flag("--wait", event.wait, "Wait until the files are complete");
}

void AddCommands(CLI::App& app, Arguments& arguments) {
  app.require_subcommand(1);
  app.add_subcommand(Command::Status, "What the recorder is doing");
  AddEventCommand(app, arguments.event);
  auto* ignition = app.add_subcommand(Command::Ignition, "Tell the recorder that the ignition is on or off");
  ignition->add_option("state", arguments.ignitionState, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
  app.add_subcommand(Command::PowerFail, "Tell the recorder that the power is failing");
  app.add_subcommand(Command::Events, "List the events");
  auto* protect = app.add_subcommand(Command::Protect, "Keep an event from being removed to make room");
  protect->add_option("id", arguments.protect.event, "The event's id")->required()->check(TextCheck(CheckEventId));
  protect->add_flag("--off", arguments.unprotect, "Let it be removed again");
  app.add_subcommand(Command::Metrics, "Counters and gauges in Prometheus' text format");
  app.add_subcommand(Command::Identity, "The public key that events are signed with, for tavi-verify --key");
  app.add_subcommand(Command::Stop, "End the recorder");
}

nlohmann::ordered_json BuildRequestOf(const std::string& command, Arguments& arguments) {
  arguments.ignition.on = arguments.ignitionState == "on";
  arguments.protect.isProtected = !arguments.unprotect;
  if (command == Command::Event) return BuildRequest(arguments.event);
  if (command == Command::Ignition) return BuildRequest(arguments.ignition);
  if (command == Command::Protect) return BuildRequest(arguments.protect);
  return {{"command", command}};
}

}  // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv, CtlOptions& options, std::ostream& out,
                                std::ostream& err) {
  CLI::App app("Asks and steers a running recorder.", "tavi-ctl");
  Arguments arguments;
  app.fallthrough();
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.add_option("--control", options.socketPath, "The recorder's control socket")
      ->check(TextCheck(CheckSocketPath))
      ->capture_default_str();
  app.add_option("--timeout", options.timeoutSeconds, "Seconds to wait for the reply (10; with --wait: no end)")
      ->check(TextCheck(CheckTimeout));
  app.add_flag("--json", options.json, "Print the reply as it came");
  AddCommands(app, arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& done) {
    app.exit(done, out, err);
    return 0;
  } catch (const CLI::ParseError& error) {
    err << "tavi-ctl: " << error.what() << "\n";
    return UsageExitStatus;
  }
  options.request = BuildRequestOf(app.get_subcommands().front()->get_name(), arguments);
  if (!options.timeoutSeconds && !arguments.event.wait) options.timeoutSeconds = DefaultTimeoutSeconds;
  return std::nullopt;
}

}  // namespace Tavi::Ctl
