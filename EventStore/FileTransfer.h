// Bringing an event's files onto the persistent disk, hashed on the way.
#pragma once

#include <string>
#include <vector>

#include "EventStore/EventDescription.h"

namespace Tavi::EventStore {

/// A product as the collect has left it. `type` as in EventFile; `path` names a regular file that nobody writes any
/// more.
struct SourceFile {
  std::string type;
  std::string path;
};

/// The name that a source keeps in the event's directory.
std::string GetFileName(const std::string& path);

/// Brings every source into `dir`, under its own name, synced and for whom `dir` is (Access.h), and describes it in
/// `files` in the order of `sources`. On one file system that is a second name for the same content, else a copy that
/// is hashed while it is made. Several files at once, on up to four threads that have ended on return. False, with the
/// first trouble in `problem`, when one failed; what is in `dir` by then is the caller's to remove.
[[nodiscard]] bool TransferFiles(const std::vector<SourceFile>& sources, const std::string& dir,
                                 std::vector<EventFile>& files, std::string& problem);

}  // namespace Tavi::EventStore
