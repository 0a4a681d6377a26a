// Replays a receiver's log at the pace of its own time stamps.
#pragma once

#include <cstdint>
#include <functional>

#include "Kbase/Util/Clock.h"
#include "Kdevice/GpsDevice/EpochSplitter.h"

namespace Kdevice::GpsDevice {

/// Reads a log from a descriptor and hands each epoch on when its time has come: the first at once, each further one
/// later by the difference of the RMC times. Midnight may lie between them. One second is taken where a time is missing
/// or damaged, where the times are the same or run backwards, and for gaps of more than ten seconds. Thread-bound.
class LogReplay {
 public:
  using Milliseconds = std::chrono::milliseconds;
  /// Waits for `duration`; true when the replay is to end instead.
  using Wait = std::function<bool(Milliseconds duration)>;

  /// `speed`: how many times faster than its time stamps the log is replayed, 1 or more. `clock` is what `wait` goes
  /// by: the moments are kept whatever time `sink` takes.
  LogReplay(Kbase::Util::IClock& clock, std::int32_t speed, Wait wait, EpochSplitter::Sink sink);

  /// Blocks until the log's end, or until `wait` says so. False, with errno set, when the log cannot be read.
  bool Play(int fd);
  /// Epochs handed on so far.
  [[nodiscard]] std::uint64_t GetCount() const { return m_count; }
  /// What of the log was damaged or dropped.
  [[nodiscard]] const EpochSplitter::Losses& GetLosses() const { return m_splitter.GetLosses(); }

 private:
  using Time = std::optional<Milliseconds>;

  void Present(const EpochSplitter::Epoch& epoch);
  static Milliseconds GetStep(Time from, Time to);

  Kbase::Util::IClock& m_clock;
  const std::int32_t m_speed;
  const Wait m_wait;
  const EpochSplitter::Sink m_sink;
  EpochSplitter m_splitter;
  std::uint64_t m_count = 0;
  Time m_previous;
  Milliseconds m_start{0};
  /// Time between the first epoch and the present one, as the log has it.
  Milliseconds m_played{0};
  bool m_ended = false;
};

}  // namespace Kdevice::GpsDevice
