// The events that commands are about: where they are, and which of them is meant.
#include "Tools/Ctl/EventsDirectory.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Control/ControlClient.h"
#include "Control/Protocol.h"
#include "EventStore/EventName.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Ctl {
namespace {

namespace fs = std::filesystem;
constexpr const char* LastWord = "last";
constexpr std::size_t EventIdDigits = 8;

bool IsDirectory(const std::string& path) {
  std::error_code ignored;
  return fs::is_directory(path, ignored);
}

/// Where the recorder keeps them; empty, with the reason, when none answers.
std::string AskRecorder(const CtlOptions& options, std::chrono::milliseconds connect, std::string& problem) {
  const std::string line = Recorder::BuildLine({{"command", Recorder::Command::Status}});
  const auto timeout = GetTimeout(options);
  const auto reply = Recorder::Exchange(options.socketPath, line, {timeout, connect, {}}, problem);
  if (!reply) return {};
  const auto status = Kbase::Json::Parse(*reply);
  const auto storage = status.find("storage");
  if (storage != status.end() && storage->is_object() && storage->contains("eventsDir") &&
      (*storage)["eventsDir"].is_string()) {
    return (*storage)["eventsDir"].get<std::string>();
  }
  const auto error = status.find("error");
  problem = error != status.end() && error->is_string() ? error->get<std::string>()
                                                        : "what answers at " + options.socketPath + " is no recorder";
  return {};
}

}  // namespace

std::optional<EventsDirectory> FindEvents(const CtlOptions& options, Trouble& trouble) {
  EventsDirectory events;
  events.path = options.eventsDir;
  if (!events.path.empty() && !IsDirectory(events.path)) {
    trouble = {UsageExitStatus, fmt::format("--events: \"{}\" is no directory; give that of all events", events.path)};
    return std::nullopt;
  }
  if (events.path.empty()) {
    const bool mayGuess = options.socketPath == Recorder::DefaultControlSocket && IsDirectory(DefaultEventsDir);
    std::string problem;
    events.path = AskRecorder(options, mayGuess ? std::chrono::milliseconds(0) : GetConnectTime(options), problem);
    if (events.path.empty() && !mayGuess) {
      trouble = {NoRecorderExitStatus, problem + " (--events DIR reads a directory without one)"};
      return std::nullopt;
    }
    if (events.path.empty()) {
      events.path = DefaultEventsDir;
      events.note = fmt::format("no recorder answers; these are the events in {}", DefaultEventsDir);
    }
  }
  while (events.path.size() > 1 && events.path.back() == '/') events.path.pop_back();
  if (::access(events.path.c_str(), R_OK | X_OK) != 0) {
    trouble = {FailureExitStatus, fmt::format("{} cannot be read: {}", events.path, std::strerror(errno))};
    return std::nullopt;
  }
  events.entries = EventStore::ListEvents(events.path);
  return events;
}

const EventStore::EventEntry* FindEvent(const EventsDirectory& events, const std::string& meant, std::string& problem) {
  if (meant == LastWord && events.entries.empty()) problem = fmt::format("there are no events in {}", events.path);
  if (meant == LastWord) return events.entries.empty() ? nullptr : &events.entries.back();
  const EventStore::EventEntry* found = nullptr;
  for (const auto& entry : events.entries) {
    if (entry.name != meant && !entry.id.starts_with(meant)) continue;
    if (found != nullptr) {
      problem = fmt::format("\"{}\" may be {} or {}; give more of the id", meant, found->id, entry.id);
      return nullptr;
    }
    found = &entry;
  }
  if (found == nullptr) problem = fmt::format("there is no event {} in {}; \"events\" lists them", meant, events.path);
  return found;
}

std::string CheckEventWord(const std::string& word) {
  const bool isDigits = word.find_first_not_of("0123456789abcdef") == std::string::npos;
  const bool isPrefix = !word.empty() && word.size() <= EventIdDigits && isDigits;
  if (isPrefix || word == LastWord || EventStore::IsEventDirName(word)) return {};
  return fmt::format("\"{}\" is no event's id; give one, its first digits, or \"last\"; \"events\" lists them", word);
}

}  // namespace Tavi::Ctl
