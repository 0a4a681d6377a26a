// The files of one complete event.
#include "Fleet/Web/EventFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "EventStore/EventName.h"
#include "EventStore/Storage.h"

namespace Tavi::Web {
namespace {

using Ksystem::FileUtils::UniqueFd;

constexpr const char* SignatureName = "event.json.sig";

struct Part {
  std::uint64_t first = 0;
  std::uint64_t size = 0;
};

enum class Wanted { Whole, Part, Nothing };

bool ReadNumber(std::string_view text, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

/// "bytes=0-99", "bytes=100-", "bytes=-100"; anything else is passed over, as the standard says.
Wanted ParseRange(std::string_view range, std::uint64_t size, Part& part) {
  constexpr std::string_view Unit = "bytes=";
  if (!range.starts_with(Unit)) return Wanted::Whole;
  range.remove_prefix(Unit.size());
  const std::size_t dash = range.find('-');
  if (dash == std::string_view::npos) return Wanted::Whole;
  const auto from = range.substr(0, dash);
  const auto to = range.substr(dash + 1);
  std::uint64_t first = 0;
  std::uint64_t last = size;
  if (from.empty()) {
    std::uint64_t length = 0;
    if (!ReadNumber(to, length)) return Wanted::Whole;
    if (length == 0 || size == 0) return Wanted::Nothing;
    part = {size - std::min(length, size), std::min(length, size)};
    return Wanted::Part;
  }
  if (!ReadNumber(from, first) || (!to.empty() && !ReadNumber(to, last)) || last < first) return Wanted::Whole;
  if (first >= size) return Wanted::Nothing;
  part = {first, std::min(last, size - 1) - first + 1};
  return Wanted::Part;
}

}  // namespace

EventFiles::EventFiles(const std::string& eventsDir, const std::string& name, std::string& problem) {
  if (!EventStore::IsEventDirName(name)) {
    problem = fmt::format("{} is no event's directory", name);
    return;
  }
  const UniqueFd all = UniqueFd::Open(eventsDir, O_RDONLY | O_DIRECTORY);
  m_directory = UniqueFd(::openat(all.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!m_directory.IsValid()) {
    EventStore::Fail("open", eventsDir + "/" + name, problem);
    return;
  }
  m_event = EventStore::ReadEvent(fmt::format("/proc/self/fd/{}", m_directory.Get()), problem);
}

std::vector<std::string> EventFiles::ListNames() const {
  std::vector<std::string> names{EventStore::EventJsonName, SignatureName};
  for (const auto& file : m_event->files) names.push_back(file.name);
  return names;
}

std::optional<FileBody> EventFiles::Open(const std::string& name) const {
  const auto names = ListNames();
  if (std::ranges::find(names, name) == names.end()) return std::nullopt;
  FileBody body;
  body.file = UniqueFd(::openat(m_directory.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat attributes {};
  const bool isThere = body.file.IsValid() && ::fstat(body.file.Get(), &attributes) == 0;
  if (!isThere || !S_ISREG(attributes.st_mode)) return std::nullopt;
  body.size = static_cast<std::uint64_t>(attributes.st_size);
  return body;
}

std::string EventFiles::GetTag(const std::string& name) const {
  const auto file = std::ranges::find(m_event->files, name, &EventStore::EventFile::name);
  return file == m_event->files.end() ? std::string() : fmt::format("\"{}\"", file->sha256);
}

std::string GetContentType(std::string_view name) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 5> Types{{{".mp4", "video/mp4"},
                                                                                {".mp3", "audio/mpeg"},
                                                                                {".jpg", "image/jpeg"},
                                                                                {".jpeg", "image/jpeg"},
                                                                                {".json", "application/json"}}};
  const auto type = std::ranges::find_if(Types, [name](const auto& each) { return name.ends_with(each.first); });
  return std::string(type == Types.end() ? "application/octet-stream" : type->second);
}

Response AnswerFile(const Request& request, FileBody file, const std::string& tag) {
  Response response;
  response.headers = {{"Accept-Ranges", "bytes"}, {"Cache-Control", "private, no-cache"}};
  if (!tag.empty()) response.headers.emplace_back("ETag", tag);
  if (!tag.empty() && request.GetHeader("if-none-match") == tag) {
    response.status = 304;
    return response;
  }
  const auto condition = request.GetHeader("if-range");
  const bool isSame = condition.empty() || condition == tag;
  Part part;
  const Wanted wanted = isSame ? ParseRange(request.GetHeader("range"), file.size, part) : Wanted::Whole;
  if (wanted == Wanted::Nothing) {
    auto refusal = Refuse(416, "the file has no such bytes");
    refusal.headers.emplace_back("Content-Range", fmt::format("bytes */{}", file.size));
    return refusal;
  }
  if (wanted == Wanted::Part) {
    response.status = 206;
    response.headers.emplace_back("Content-Range",
                                  fmt::format("bytes {}-{}/{}", part.first, part.first + part.size - 1, file.size));
    file.offset = part.first;
    file.size = part.size;
  }
  response.file = std::move(file);
  return response;
}

}  // namespace Tavi::Web
