// What the programs that look at an event have in common: their command line, their output, their exit status.
#include "Tools/Tool.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "Control/CommandLine.h"
#include "EventStore/EventList.h"
#include "EventStore/Storage.h"

namespace Tavi::EventTools {
namespace {

namespace fs = std::filesystem;
using Ksystem::FileUtils::UniqueFd;

int Complain(const ToolOptions& options, int status, const std::string& sentence) {
  std::cerr << options.program + ": " + sentence + "\n";
  return status;
}

bool IsStandardOutput(const std::string& path) {
  return path.empty() || path == "-";
}

/// A pipe or a device is written to as it is; nothing may take its place.
bool IsRegularOrNew(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

/// One file for each event, instead of one for all.
bool IsForMany(const std::string& output) {
  std::error_code ignored;
  return output.ends_with('/') || fs::is_directory(output, ignored);
}

/// Where the page or table of an event goes.
std::string GetOutputFile(const ToolOptions& options, const std::string& eventDir) {
  if (!IsForMany(options.output)) return options.output;
  std::error_code ignored;
  return (fs::path(options.output) / fs::canonical(eventDir, ignored).filename()).string() + options.suffix;
}

int WriteFile(const ToolOptions& options, const std::string& file, std::string_view text) {
  const bool isAside = IsRegularOrNew(file);
  const std::string path = isAside ? fmt::format("{}.new-{}", file, getpid()) : file;
  UniqueFd fd = UniqueFd::Open(path, O_WRONLY | (isAside ? O_CREAT | O_EXCL : 0));
  if (!fd.IsValid()) {
    return Complain(options, UsageStatus,
                    fmt::format("--output: \"{}\" cannot be written: {}", file, std::strerror(errno)));
  }
  std::string problem;
  const bool isWritten = (EventStore::WriteAll(fd.Get(), text.data(), text.size()) && fd.Close()) ||
                         EventStore::Fail("write", file, problem);
  if (isWritten && (!isAside || EventStore::Rename(path, file, problem))) return DoneStatus;
  if (isAside) unlink(path.c_str());
  return Complain(options, FailureStatus, problem);
}

int WriteOutput(const ToolOptions& options, const std::string& file, std::string_view text) {
  if (!IsStandardOutput(file)) return WriteFile(options, file, text);
  if (EventStore::WriteAll(STDOUT_FILENO, text.data(), text.size())) return DoneStatus;
  return Complain(options, FailureStatus, std::string("standard output: ") + std::strerror(errno));
}

/// What is wrong with writing there: nobody writes onto what he reads, under whatever name it goes.
std::string CheckOutput(const std::string& eventDir, const std::string& output) {
  if (IsStandardOutput(output)) return {};
  std::error_code ignored;
  const auto event = fs::canonical(eventDir, ignored);
  const auto canonical = fs::weakly_canonical(output, ignored);
  const auto differs = std::mismatch(event.begin(), event.end(), canonical.begin(), canonical.end());
  bool isWithin = differs.first == event.end();
  for (const auto& file : fs::directory_iterator(event, ignored)) {
    isWithin = isWithin || fs::equivalent(file.path(), output, ignored);
  }
  if (!isWithin) return {};
  return fmt::format("--output: \"{}\" belongs to the event; give a file outside of its directory", output);
}

void AddOptions(CLI::App& app, const ToolUsage& usage, ToolOptions& options) {
  for (const auto& flag : usage.flags) app.add_flag(flag.name, *flag.value, flag.meaning);
  for (const auto& choice : usage.choices) {
    app.add_option(choice.name, *choice.value, choice.meaning)->check(CLI::IsMember(choice.allowed));
  }
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", usage.program + " " TAVI_VERSION);
  app.add_option("EVENT_DIR", options.eventDirs, "Directory of an event; of several, as events/*/")
      ->required()
      ->type_name("DIR")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--output", options.output,
                 "File to write; \"-\" is standard output; with \"/\" at its end a directory, for a file of each event")
      ->type_name("FILE")
      ->capture_default_str();
}

int RunOne(const ToolOptions& options, const std::string& eventDir,
           const std::function<std::string(EventData&)>& render) {
  EventData data;
  std::string problem;
  if (!LoadEvent(eventDir, data, problem)) return Complain(options, FailureStatus, problem);
  const int status = WriteOutput(options, GetOutputFile(options, eventDir), render(data));
  if (status != DoneStatus || data.problems.empty()) return status;
  return Complain(options, FailureStatus,
                  fmt::format("the event is damaged, what is whole was written: {}", fmt::join(data.problems, "; ")));
}

}  // namespace

std::string CheckDirectories(const ToolOptions& options) {
  std::error_code ignored;
  for (const auto& dir : options.eventDirs) {
    if (!fs::is_directory(dir, ignored)) {
      return fmt::format("EVENT_DIR: \"{}\" is no directory; give that of an event", dir);
    }
    const bool isAbove =
        !EventStore::Exists(dir + "/" + EventStore::EventJsonName) && !EventStore::ListEvents(dir).empty();
    if (isAbove) return fmt::format("EVENT_DIR: \"{}\" holds events; give one, or \"{}/*/\" for all", dir, dir);
  }
  const bool isForMany = IsForMany(options.output);
  if (options.eventDirs.size() > 1 && !isForMany) {
    return fmt::format("--output: {} events need a directory for a file each; give one with \"/\" at its end",
                       options.eventDirs.size());
  }
  if (isForMany && EventStore::Exists(options.output + "/" + EventStore::EventJsonName)) {
    return fmt::format("--output: \"{}\" belongs to the event; give a directory outside of it", options.output);
  }
  for (const auto& dir : options.eventDirs) {
    std::string problem = CheckOutput(dir, options.output);
    if (problem.empty() && isForMany) problem = CheckOutput(dir, GetOutputFile(options, dir));
    if (!problem.empty()) return problem;
  }
  return {};
}

std::optional<int> ParseToolOptions(const ToolUsage& usage, int argc, const char* const* argv, ToolOptions& options,
                                    const std::function<std::string()>& check) {
  CLI::App app(usage.purpose, usage.program);
  options.program = usage.program;
  AddOptions(app, usage, options);
  std::string problem;
  try {
    CommandLine::Parse(app, argc, argv);
    problem = check();
  } catch (const CLI::Success& done) {
    app.exit(done, std::cout, std::cerr);
    return DoneStatus;
  } catch (const CLI::ParseError& error) {
    problem = error.what();
  }
  if (problem.empty()) problem = CheckDirectories(options);
  if (problem.empty()) return std::nullopt;
  return Complain(options, UsageStatus, problem);
}

int RunTool(const ToolOptions& options, const std::function<std::string(EventData&)>& render) {
  std::error_code error;
  if (IsForMany(options.output)) fs::create_directories(options.output, error);
  if (error) {
    return Complain(options, UsageStatus,
                    fmt::format("--output: \"{}\" cannot be made: {}", options.output, error.message()));
  }
  int worst = DoneStatus;
  for (const auto& dir : options.eventDirs) worst = std::max(worst, RunOne(options, dir, render));
  return worst;
}

}  // namespace Tavi::EventTools
