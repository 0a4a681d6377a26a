// What is remembered of events from one start to the next.
#include "Fleet/Upload/UploadState.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Fleet/Upload/Log.h"
#include "Fleet/Upload/WholeFile.h"
#include "Kbase/Json/Json.h"
#include "Ksystem/FileUtils/Kdir.h"

namespace Tavi::Upload {
namespace {

using Kbase::Json::Object;
using Ksystem::FileUtils::UniqueFd;

constexpr const char* StateName = "state.json";
constexpr const char* LockName = ".lock";
/// More events than any disk of a unit has, at 60 bytes each.
constexpr std::size_t MaxStateBytes = std::size_t{16} << 20;
constexpr std::array<std::string_view, 3> Words{"begun", "withoutStreams", "whole"};

std::optional<Progress> ParseProgress(const Object& value) {
  for (std::size_t i = 0; value.is_string() && i < Words.size(); ++i) {
    if (value == std::string(Words[i])) return static_cast<Progress>(i);
  }
  return std::nullopt;
}

std::uint64_t ReadCount(const Object& state, const char* key) {
  return state.contains(key) && state[key].is_number_unsigned() ? state[key].get<std::uint64_t>() : 0;
}

std::string ReadText(const Object& object, const char* key) {
  return object.is_object() && object.contains(key) && object[key].is_string() ? object[key].get<std::string>() : "";
}

std::string FormatNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return EventStore::FormatTime(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

}  // namespace

bool UploadState::Open(const std::string& dir, const std::string& remote, std::string& problem) {
  if (!Ksystem::FileUtils::Kdir(dir).Create()) {
    problem = fmt::format("stateDir: {} cannot be made", dir);
    return false;
  }
  m_lock = UniqueFd::Open(dir + LockName, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (!m_lock.IsValid()) return EventStore::Fail("write", dir + LockName, problem);
  if (::flock(m_lock.Get(), LOCK_EX | LOCK_NB) != 0) {
    problem = fmt::format("another tavi-upload, or an rclone that it left, works with {}", dir);
    return false;
  }
  m_path = dir + StateName;
  m_remote = remote;
  Load();
  return true;
}

void UploadState::Load() {
  if (!EventStore::Exists(m_path)) return;
  std::string text;
  std::string problem;
  const bool isRead = EventStore::ReadSmallFile(m_path, MaxStateBytes, text, problem);
  const auto state = Kbase::Json::Parse(text);
  if (!isRead || !state.is_object() || !state.contains("events") || !state["events"].is_object()) {
    LogWarning(fmt::format("{} is forgotten, the far side is asked: {}", m_path,
                           isRead ? "it is no state of an upload" : problem));
    return;
  }
  m_sent = ReadCount(state, "sent");
  m_deleted = ReadCount(state, "deleted");
  if (state.contains("lastSent") && state["lastSent"].is_object()) {
    m_last = {ReadText(state["lastSent"], "event"), ReadText(state["lastSent"], "time")};
  }
  if (ReadText(state, "remote") != m_remote) {
    LogInfo("the remote is another one than before: what it has of the events is asked anew");
    return;
  }
  for (const auto& [event, value] : state["events"].items()) {
    if (const auto progress = ParseProgress(value)) m_events[event] = *progress;
  }
}

void UploadState::Save() const {
  auto events = Object::object();
  for (const auto& [event, progress] : m_events) events[event] = Words.at(static_cast<std::size_t>(progress));
  Object state{{"schema", 1}, {"remote", m_remote}, {"sent", m_sent}, {"deleted", m_deleted}, {"lastSent", nullptr}};
  if (m_last) state["lastSent"] = Object{{"event", m_last->event}, {"time", m_last->time}};
  state["events"] = events;
  std::string problem;
  if (!WriteWholeFile(m_path, Kbase::Json::PrintLines(state), 0600, problem)) LogWarning(problem);
}

std::optional<Progress> UploadState::Get(const std::string& event) const {
  const auto found = m_events.find(event);
  return found == m_events.end() ? std::nullopt : std::optional(found->second);
}

void UploadState::Set(const std::string& event, Progress progress) {
  const auto before = Get(event);
  if (before == progress) return;
  m_events[event] = progress;
  if (progress != Progress::Begun) m_last = {event, FormatNow()};
  if (progress != Progress::Begun && (!before || before == Progress::Begun)) ++m_sent;
  Save();
}

void UploadState::Forget(const std::string& event) {
  if (m_events.erase(event) > 0) Save();
}

std::vector<std::string> UploadState::ForgetGone(const std::set<std::string>& events) {
  std::vector<std::string> begun;
  bool isChanged = false;
  for (auto it = m_events.begin(); it != m_events.end();) {
    const bool isGone = !events.contains(it->first);
    // One that was begun is forgotten by whoever has told the far side.
    if (isGone && it->second == Progress::Begun) begun.push_back(it->first);
    const bool isForgotten = isGone && it->second != Progress::Begun;
    isChanged = isChanged || isForgotten;
    it = isForgotten ? m_events.erase(it) : std::next(it);
  }
  if (isChanged) Save();
  return begun;
}

void UploadState::CountDeleted() {
  ++m_deleted;
  Save();
}

}  // namespace Tavi::Upload
