// The files of one complete event, opened so that nothing else is ever read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "EventStore/EventDescription.h"
#include "Fleet/Web/Http.h"

namespace Tavi::Web {

/// A directory of one event, held open: what is removed meanwhile, to make room, can still be read. Thread-bound.
class EventFiles {
 public:
  /// `name` is the event's directory in `eventsDir`. Invalid, with one sentence in `problem`, when it is none or its
  /// description cannot be read. No link is followed.
  EventFiles(const std::string& eventsDir, const std::string& name, std::string& problem);

  [[nodiscard]] bool IsValid() const { return m_event.has_value(); }
  [[nodiscard]] const EventStore::EventDescription& GetEvent() const { return *m_event; }
  /// The description, its signature and the files that it names, in this order.
  [[nodiscard]] std::vector<std::string> ListNames() const;
  /// One of these, whole. Empty when it is no name of these, is not there or is no regular file.
  [[nodiscard]] std::optional<FileBody> Open(const std::string& name) const;
  /// A tag that changes with the file's content; empty where the description has no hash of it.
  [[nodiscard]] std::string GetTag(const std::string& name) const;

 private:
  Ksystem::FileUtils::UniqueFd m_directory;
  std::optional<EventStore::EventDescription> m_event;
};

/// What a file is to a browser, by the end of its name.
std::string GetContentType(std::string_view name);

/// The answer with a whole file or with the part of it that the request's Range asks for (RFC 9110, section 14): one
/// part only; of several the whole file is sent, as is allowed. `tag` may be empty.
Response AnswerFile(const Request& request, FileBody file, const std::string& tag);

}  // namespace Tavi::Web
