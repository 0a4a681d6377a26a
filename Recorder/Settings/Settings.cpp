// The settings' file: reading and writing it.
#include "Recorder/Settings/Settings.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Kbase/Json/Json.h"
#include "Ksystem/FileUtils/UniqueFd.h"
#include "Recorder/Settings/Fields.h"
#include "Recorder/Settings/SettingsReader.h"

namespace Tavi::Recorder {
namespace {

using Ksystem::FileUtils::UniqueFd;

constexpr std::size_t LargestFile = std::size_t{1} << 20;

std::string WithReason(const char* what) {
  return fmt::format("{} ({})", what, std::strerror(errno));
}

/// Reads to the end of the file; empty, else what went wrong.
std::string ReadAll(int descriptor, std::string& text) {
  std::array<char, 4096> block{};
  while (text.size() <= LargestFile) {
    const ssize_t got = ::read(descriptor, block.data(), block.size());
    if (got == 0) return {};
    if (got < 0 && errno != EINTR) return WithReason("it cannot be read");
    if (got > 0) text.append(block.data(), static_cast<std::size_t>(got));
  }
  return "it is larger than 1 MiB, no settings are";
}

std::string ReadFile(const std::string& path, std::string& text) {
  // Opening a FIFO must not wait for a writer.
  const UniqueFd file = UniqueFd::Open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file.IsValid()) return WithReason("it cannot be opened");
  struct stat status {};
  if (::fstat(file.Get(), &status) != 0) return WithReason("it cannot be read");
  if (S_ISDIR(status.st_mode)) return "it is a directory, a file is right";
  if (!S_ISREG(status.st_mode)) return "it is no regular file, one is right";
  return ReadAll(file.Get(), text);
}

}  // namespace

Pipeline::PipelineConfig RestartingPipeline() {
  Pipeline::PipelineConfig config;
  config.restartAfterSeconds = 10;
  config.keepGoing = true;
  config.restartUnitAfterMinutes = 60;
  config.audio.optional = config.acc.optional = true;
  return config;
}

bool LoadSettings(const std::string& path, Settings& settings, std::string& problem) {
  std::string text;
  problem = ReadFile(path, text);
  if (!problem.empty()) {
    problem = path + ": " + problem;
    return false;
  }
  Settings loaded;
  problem = SettingsReader(loaded).Read(text);
  if (!problem.empty()) {
    problem = path + ":" + problem;
    return false;
  }
  settings = std::move(loaded);
  return true;
}

std::string FormatSettings(const Settings& settings) {
  Settings copy = settings;
  Json root = Json::object();
  for (const auto& field : DescribeFields(copy)) {
    std::string pointer = "/" + field.GetName();
    std::ranges::replace(pointer, '.', '/');
    root[Json::json_pointer(pointer)] = field.GetValue();
  }
  return Kbase::Json::PrintLines(root);
}

std::string FormatFieldTable() {
  Settings defaults;
  std::string table = "| field | unit | default | range | meaning |\n|---|---|---|---|---|\n";
  for (const auto& field : DescribeFields(defaults)) {
    table += fmt::format("| `{}` | {} | `{}` | {} | {} |\n", field.GetName(), field.GetUnit(), field.GetValue().dump(),
                         field.DescribeAllowed(), field.GetMeaning());
  }
  return table;
}

}  // namespace Tavi::Recorder
