// One client of the live stream.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Ksystem/FileUtils/UniqueFd.h"
#include "Recorder/Live/OutgoingRecord.h"
#include "Recorder/Live/RingCursor.h"
#include "Tavi/Pipeline/PipelineType.h"

namespace Tavi::Recorder::Live {

/// The present ring of a source, null when there is none. Called without a lock held.
using GetRing = std::function<RingCursor::Ring(Pipeline::PipelineType)>;

struct LiveLimits {
  using Milliseconds = std::chrono::milliseconds;

  /// How far behind a client may be before it is brought back to what is new.
  Milliseconds lag{2000};
  /// How long a client may take nothing of what waits for it.
  Milliseconds stall{10'000};
};

/// Owns the socket, the client's places in the rings, and of their entries at most the one that is being written.
/// Thread-bound; no operation blocks.
class LiveConnection {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// `streams` in the order of their numbers. `limits` is borrowed; `place` is held for the connection's life.
  LiveConnection(Ksystem::FileUtils::UniqueFd socket, const std::vector<Pipeline::PipelineType>& streams,
                 std::shared_ptr<void> place, const LiveLimits& limits, TimePoint now);

  [[nodiscard]] int GetFd() const { return m_socket.Get(); }
  /// What poll() is to watch for.
  [[nodiscard]] short GetEvents() const;
  /// Acts on what poll() has seen: whoever leaves, and whoever sends something.
  void HandleEvents(short seen);
  /// Writes what the sources have delivered, the oldest first, until there is nothing more or the socket is full.
  void Serve(const GetRing& getRing, TimePoint now);

  /// True when the connection is to be closed.
  [[nodiscard]] bool IsOver() const { return m_isOver; }
  /// Why the client was cut off; empty for one that left.
  [[nodiscard]] const std::string& GetFault() const { return m_fault; }
  /// Entries that this client did not get since the last call.
  std::uint64_t TakeDropped();

 private:
  struct Stream {
    Pipeline::PipelineType type;
    RingCursor cursor;
  };

  void LoadOldest(const GetRing& getRing);
  [[nodiscard]] bool Flush(TimePoint now);
  void CutOff(const std::string& reason);

  Ksystem::FileUtils::UniqueFd m_socket;
  std::vector<Stream> m_streams;
  const std::shared_ptr<void> m_place;
  const LiveLimits& m_limits;
  std::unique_ptr<OutgoingRecord> m_outgoing = std::make_unique<OutgoingRecord>();
  /// When the socket took something last, or had nothing to take.
  TimePoint m_progress;
  std::uint64_t m_unusable = 0;
  /// It sends nothing more, but may still read.
  bool m_inputEnded = false;
  bool m_isOver = false;
  std::string m_fault;
};

}  // namespace Tavi::Recorder::Live
