// The names that the files of an interrupted event bear, put together and taken apart.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::RecoveryCollect {

/// What a file's name tells.
struct EventFileName {
  PipelineCollect::PipelineCollectType type;
  /// The name that all files of the event share.
  std::string event;
  /// The copy was interrupted: the file holds the stream's beginning.
  bool isHalf = false;
  /// A camera's video that is an MP4 already: power failed while the event was muxed.
  bool isMuxed = false;
  /// The companion of that file, with the times of its entries (EntryTimes.h).
  bool isTimes = false;
};

/// When an event was saved, in seconds since the epoch, and how many seconds it holds.
struct EventTime {
  std::int64_t time = 0;
  unsigned int seconds = 0;
};

/// The two streams that become an MP4.
bool IsCameraVideo(PipelineCollect::PipelineCollectType type);

/// Takes a name (no directory) apart as the backup puts it together: prefix, event, extension, ".times" behind a
/// companion, and ".part" behind a half copy of either. Nothing when it is not of that form.
std::optional<EventFileName> ParseBackupName(const std::string& fileName);
/// The same for a recovered file: a camera's video ends in ".mp4", and nothing in ".part".
std::optional<EventFileName> ParseProductName(const std::string& fileName);
/// The name under which the file is saved, with `event` in the place of its own.
std::string BuildBackupName(const EventFileName& file, const std::string& event);
/// The name of the recovered file.
std::string BuildProductName(PipelineCollect::PipelineCollectType type, const std::string& event);
/// Reads time and seconds off an event's name, which ends as in "_20261121T071500Z_30". Nothing when it does not.
std::optional<EventTime> ParseEventTime(const std::string& event);
/// True for a name of Kbase::Util::NewUid, which the files of ordinary events bear.
bool IsUid(const std::string& event);

}  // namespace Tavi::RecoveryCollect
