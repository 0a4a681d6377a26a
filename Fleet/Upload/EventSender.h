// One event's way to the far side.
#pragma once

#include <string>

#include "Fleet/Upload/Manifest.h"
#include "Fleet/Upload/Remote.h"

namespace Tavi::Upload {

enum class SendResult {
  /// Every file is there, and so is what says so; both proven.
  Whole,
  /// The same but for the cameras' streams, which were withheld.
  WithoutStreams,
  /// It is not what the unit wrote, and is not sent.
  Damaged,
  /// It is no more on the unit.
  Gone,
  /// Not this time.
  Failed,
};

/// Sends events file by file. The far side is asked first what it has, so that a break costs the files that were under
/// way and no others. Thread-bound; borrows the remote.
class EventSender {
 public:
  EventSender(std::string eventsDir, Remote& remote) : m_eventsDir(std::move(eventsDir)), m_remote(remote) {}

  /// Sends what is missing, proves what is there, then says there that it is whole. With one sentence in `problem`
  /// unless it is. Blocks as long as rclone takes.
  SendResult Send(const std::string& event, bool withStreams, std::string& problem);
  /// Asks the far side once more: Whole, Failed with an empty `problem` when something is not right there any more, or
  /// what Send says.
  SendResult Prove(const std::string& event, std::string& problem);

 private:
  std::optional<Manifest> Build(const std::string& event, SendResult& result, std::string& problem);
  [[nodiscard]] bool SendMissing(const Manifest& manifest, const std::vector<UploadFile>& missing,
                                 std::string& problem);
  [[nodiscard]] bool BringAll(const Manifest& manifest, const std::vector<UploadFile>& files, std::string& problem);
  [[nodiscard]] bool Mark(const Manifest& manifest, const UploadFile& marker, const std::string& text,
                          std::string& problem);

  const std::string m_eventsDir;
  Remote& m_remote;
};

}  // namespace Tavi::Upload
