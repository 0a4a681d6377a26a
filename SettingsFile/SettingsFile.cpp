// A program's settings as a JSON file: reading, writing, and the documentation's table.
#include "SettingsFile/SettingsFile.h"

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
#include "SettingsFile/SettingsReader.h"

namespace Tavi::SettingsFile {
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

bool LoadFields(const std::string& path, std::vector<Field> fields, std::string& problem) {
  std::string text;
  problem = ReadFile(path, text);
  if (!problem.empty()) {
    problem = path + ": " + problem;
    return false;
  }
  problem = SettingsReader(std::move(fields)).Read(text);
  if (problem.empty()) return true;
  problem = path + ":" + problem;
  return false;
}

std::string FormatFields(const std::vector<Field>& fields) {
  Json root = Json::object();
  for (const auto& field : fields) {
    std::string pointer = "/" + field.GetName();
    std::ranges::replace(pointer, '.', '/');
    root[Json::json_pointer(pointer)] = field.GetValue();
  }
  return Kbase::Json::PrintLines(root);
}

std::string CheckFields(const std::vector<Field>& fields) {
  for (const auto& field : fields) {
    const std::string problem = field.FindProblem(field.GetValue());
    if (!problem.empty()) return fmt::format("field {}: {}", field.GetName(), problem);
  }
  return {};
}

std::string FormatFieldTable(const std::vector<Field>& fields) {
  std::string table = "| field | unit | default | range | meaning |\n|---|---|---|---|---|\n";
  for (const auto& field : fields) {
    table += fmt::format("| `{}` | {} | `{}` | {} | {} |\n", field.GetName(), field.GetUnit(), field.GetValue().dump(),
                         field.DescribeAllowed(), field.GetMeaning());
  }
  return table;
}

}  // namespace Tavi::SettingsFile
