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

int WriteFile(const ToolOptions& options, std::string_view text) {
  const bool isAside = IsRegularOrNew(options.outputFile);
  const std::string path = isAside ? fmt::format("{}.new-{}", options.outputFile, getpid()) : options.outputFile;
  UniqueFd fd = UniqueFd::Open(path, O_WRONLY | (isAside ? O_CREAT | O_EXCL : 0));
  if (!fd.IsValid()) {
    return Complain(options, UsageStatus,
                    fmt::format("--output: \"{}\" cannot be written: {}", options.outputFile, std::strerror(errno)));
  }
  std::string problem;
  const bool isWritten = (EventStore::WriteAll(fd.Get(), text.data(), text.size()) && fd.Close()) ||
                         EventStore::Fail("write", options.outputFile, problem);
  if (isWritten && (!isAside || EventStore::Rename(path, options.outputFile, problem))) return DoneStatus;
  if (isAside) unlink(path.c_str());
  return Complain(options, FailureStatus, problem);
}

int WriteOutput(const ToolOptions& options, std::string_view text) {
  if (!IsStandardOutput(options.outputFile)) return WriteFile(options, text);
  if (EventStore::WriteAll(STDOUT_FILENO, text.data(), text.size())) return DoneStatus;
  return Complain(options, FailureStatus, std::string("standard output: ") + std::strerror(errno));
}

/// What is wrong with writing there: nobody writes onto what he reads, under whatever name it goes.
std::string CheckOutput(const ToolOptions& options) {
  if (IsStandardOutput(options.outputFile)) return {};
  std::error_code ignored;
  const auto event = fs::canonical(options.eventDir, ignored);
  const auto output = fs::weakly_canonical(options.outputFile, ignored);
  const auto differs = std::mismatch(event.begin(), event.end(), output.begin(), output.end());
  bool isWithin = differs.first == event.end();
  for (const auto& file : fs::directory_iterator(event, ignored)) {
    isWithin = isWithin || fs::equivalent(file.path(), options.outputFile, ignored);
  }
  if (!isWithin) return {};
  return fmt::format("--output: \"{}\" belongs to the event; give a file outside of its directory", options.outputFile);
}

void AddOptions(CLI::App& app, const ToolUsage& usage, ToolOptions& options) {
  for (const auto& flag : usage.flags) app.add_flag(flag.name, *flag.value, flag.meaning);
  for (const auto& choice : usage.choices) {
    app.add_option(choice.name, *choice.value, choice.meaning)->check(CLI::IsMember(choice.allowed));
  }
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", usage.program + " " TAVI_VERSION);
  app.add_option("EVENT_DIR", options.eventDir, "Directory of the event")
      ->required()
      ->multi_option_policy(CLI::MultiOptionPolicy::Throw);
  app.add_option("--output", options.outputFile, "File to write; \"-\" is standard output")->capture_default_str();
}

}  // namespace

std::optional<int> ParseToolOptions(const ToolUsage& usage, int argc, const char* const* argv, ToolOptions& options,
                                    const std::function<std::string()>& check) {
  CLI::App app(usage.purpose, usage.program);
  options.program = usage.program;
  AddOptions(app, usage, options);
  std::string problem;
  try {
    app.parse(argc, argv);
    problem = check();
  } catch (const CLI::Success& done) {
    app.exit(done, std::cout, std::cerr);
    return DoneStatus;
  } catch (const CLI::ParseError& error) {
    problem = error.what();
  }
  std::error_code ignored;
  if (problem.empty() && !fs::is_directory(options.eventDir, ignored)) {
    problem = fmt::format("EVENT_DIR: \"{}\" is no directory; give that of an event", options.eventDir);
  }
  if (problem.empty()) problem = CheckOutput(options);
  if (problem.empty()) return std::nullopt;
  return Complain(options, UsageStatus, problem);
}

int RunTool(const ToolOptions& options, const std::function<std::string(EventData&)>& render) {
  EventData data;
  std::string problem;
  if (!LoadEvent(options.eventDir, data, problem)) return Complain(options, FailureStatus, problem);
  if (const int status = WriteOutput(options, render(data)); status != DoneStatus) return status;
  if (data.problems.empty()) return DoneStatus;
  return Complain(options, FailureStatus,
                  fmt::format("the event is damaged, what is whole was written: {}", fmt::join(data.problems, "; ")));
}

}  // namespace Tavi::EventTools
