// All viewers, and what a new one needs before it can follow.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Fleet/Web/Live/LiveMessage.h"

namespace Tavi::Web {

class LiveViewer;

/// Names of MediaStreams in messages.
inline constexpr std::array<const char*, MediaStreams> MediaStreamNames{"camera0", "camera1", "sound"};

/// Gives each message to all viewers, and keeps of the streams what one must have to begin now. Thread-safe; nobody
/// waits for a viewer. Bounded: of each stream no more than MostKeptBytes.
class Fanout : public std::enable_shared_from_this<Fanout> {
 public:
  /// Some seconds of a camera. Of a stream whose key frames are further apart nothing is kept, and a new viewer waits
  /// for the next one.
  static constexpr std::size_t MostKeptBytes = 3 * 1024 * 1024;

  /// Null when there are `most` already, or after End. The viewer holds this object.
  std::shared_ptr<LiveViewer> Add(std::size_t most);
  [[nodiscard]] std::size_t Count() const;
  [[nodiscard]] bool HasEnded() const;

  /// `index`: of MediaStreams. What was kept of the stream is forgotten: a new segment's first fragment is a key frame.
  void PublishInit(std::size_t index, std::string_view codec, std::span<const std::uint8_t> segment);
  void PublishFragment(std::size_t index, std::span<const std::uint8_t> fragment, bool isKeyFrame);
  /// The JSON object `text`. With a `topic` it is kept, and a new viewer begins with the newest of each.
  void PublishJson(std::string_view text, std::string_view topic = {});
  void PublishGap(std::size_t index);
  /// Nothing that was published of the streams is what a new viewer should begin with: the recorder has gone.
  void Forget();
  /// Ends all viewers.
  void End();

 private:
  friend class LiveViewer;
  struct Stream {
    MessagePtr init;
    /// From the newest key frame on.
    std::vector<MessagePtr> fragments;
    std::size_t bytes = 0;
    /// Of the next fragment.
    std::uint64_t number = 0;
  };

  // From viewers, which hold no lock of their own then.
  void Remove(const LiveViewer* viewer);
  void Rejoin(LiveViewer& viewer);

  static void Keep(Stream& stream, const MessagePtr& message);
  void StartLocked(LiveViewer& viewer);
  void DistributeLocked(const MessagePtr& message);

  /// Taken before a viewer's, never after.
  mutable std::mutex m_mutex;
  /// Each leaves in its destructor, which waits for the lock.
  std::vector<LiveViewer*> m_viewers;
  std::array<Stream, MediaStreams> m_streams;
  std::map<std::string, MessagePtr, std::less<>> m_newest;
  bool m_hasEnded = false;
};

}  // namespace Tavi::Web
