// The events that commands are about: where they are, and which of them is meant.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "EventStore/EventList.h"
#include "Tools/Ctl/CtlOptions.h"

namespace Tavi::Ctl {

/// Where the service keeps its events unless it is told otherwise.
inline constexpr const char* DefaultEventsDir = "/var/lib/tavi/events";

struct EventsDirectory {
  /// Without a "/" at its end.
  std::string path;
  /// In the order in which they were saved.
  std::vector<EventStore::EventEntry> entries;
  /// One sentence for the user when the directory was not asked for and no recorder has told it; else empty.
  std::string note;

  [[nodiscard]] std::string GetPath(const EventStore::EventEntry& entry) const { return path + "/" + entry.name; }
};

/// Why there is none, and the exit status that goes with it.
struct Trouble {
  int exitStatus = 0;
  std::string sentence;
};

/// That of --events; else the running recorder's; else, where nobody has named a socket, the service's. Empty, with
/// `trouble`, when there is none or it cannot be read.
std::optional<EventsDirectory> FindEvents(const CtlOptions& options, Trouble& trouble);

/// The event that a person means: by the beginning of its id, by the name of its directory, or by "last". Null, with
/// one sentence in `problem`, when there is none or more than one; it lives as long as `events`.
const EventStore::EventEntry* FindEvent(const EventsDirectory& events, const std::string& meant, std::string& problem);

/// What is wrong with such a word, empty when it may name an event.
std::string CheckEventWord(const std::string& word);

}  // namespace Tavi::Ctl
