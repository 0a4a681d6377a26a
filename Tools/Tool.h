// What the programs that look at an event have in common: their command line, their output, their exit status.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "EventPage/EventData.h"

namespace Tavi::EventTools {

/// What a program says of itself, and its options beside the common ones. The values are borrowed.
struct ToolUsage {
  struct Flag {
    std::string name;
    bool* value;
    std::string meaning;
  };
  struct Choice {
    std::string name;
    int* value;
    std::vector<int> allowed;
    std::string meaning;
  };
  std::string program;
  std::string purpose;
  std::vector<Flag> flags;
  std::vector<Choice> choices;
};

struct ToolOptions {
  std::string program;
  /// At least one.
  std::vector<std::string> eventDirs;
  /// Empty or "-" for standard output. A directory, or a name with "/" at its end, for a file of each event's name.
  std::string output;
  /// Of these files' names: ".gpx".
  std::string suffix;
};

/// Exit statuses.
inline constexpr int DoneStatus = 0;
/// The event is damaged (what is whole of it was written), or the output could not be written to its end.
inline constexpr int FailureStatus = 1;
/// The command line is wrong; nothing was written.
inline constexpr int UsageStatus = 2;

/// Parses the command line: EVENT_DIR..., --output, --version and what `usage` has. `check` looks at the options
/// together and gives a sentence about what is wrong, or none. Empty when the program is to run, otherwise its exit
/// status: what there is to say has been said.
std::optional<int> ParseToolOptions(const ToolUsage& usage, int argc, const char* const* argv, ToolOptions& options,
                                    const std::function<std::string()>& check);

/// What is wrong with the directories of the events and the output, empty when nothing is.
std::string CheckDirectories(const ToolOptions& options);

/// Loads each event, has it rendered and writes the result, to a file aside that then takes the output's name. What is
/// wrong goes to standard error, one line an event. Returns the exit status, of several the highest.
int RunTool(const ToolOptions& options, const std::function<std::string(EventData&)>& render);

}  // namespace Tavi::EventTools
