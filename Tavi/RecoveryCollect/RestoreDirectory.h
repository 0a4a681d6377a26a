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
  /// The companions with the times of their entries; also of a stream that is a product already.
  std::map<PipelineCollect::PipelineCollectType, std::string> times;
  /// What is there a second time, and not as good: half a copy beside the whole one, a stream beside its MP4.
  std::vector<std::string> spares;
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
/// one, and an MP4 for the stream that it was made of. False when the directory could not be read to its end.
bool ReadRestoreDirectory(const std::string& dir, RestoreContent& content);

}  // namespace Tavi::RecoveryCollect
