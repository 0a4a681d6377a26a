// What lies in the restore directory, sorted by event.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::RecoveryCollect {

/// The files of one interrupted event.
struct EventSources {
  /// The name that they share.
  std::string name;
  /// Full paths; each is a regular file with something in it.
  std::map<PipelineCollect::PipelineCollectType, std::string> paths;
};

struct RestoreContent {
  /// Sorted by name, which sorts the events of one base by time.
  std::vector<EventSources> events;
  /// Full path and what it is, of everything else.
  std::map<std::string, std::string> others;
};

/// Sorted names of what is in the directory; none when there is no such directory. False, with one line in the log,
/// when it cannot be read to its end.
bool ListDirectory(const std::string& dir, std::vector<std::string>& names);
/// True for a regular file itself: reading it cannot wait for anybody, as a pipe's would.
bool IsRegularFile(const std::string& path);

/// Sorts the files of `dir` (ends with "/") into `content`. A half copy stands for its stream when there is no whole
/// one. False when the directory could not be read to its end.
bool ReadRestoreDirectory(const std::string& dir, RestoreContent& content);

}  // namespace Tavi::RecoveryCollect
