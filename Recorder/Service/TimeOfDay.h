// What time it is: by the receiver once it has a fix, by the system's clock until then.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>

#include "EventStore/EventDescription.h"
#include "Tavi/Gps/GstGpsPipelineElement.h"

namespace Tavi::Recorder {

/// A moment by the clocks that do not wait for the receiver.
struct Moment {
  std::chrono::steady_clock::time_point steady;
  /// By the system's clock, Unix time in milliseconds.
  std::int64_t systemMs = 0;

  [[nodiscard]] static Moment Now();
};

/// The receiver's time by the monotonic clock, which nobody sets: a unit whose clock has no battery is in 1970 after
/// each start, and jumps when something sets it. A reading is believed when two more agree with it to a second, so that
/// neither a damaged time nor a late thread counts; of what is believed in the last one or two minutes the reading with
/// the shortest way to us counts. Without fixes the time goes on by the monotonic clock, some 0.2 s an hour less
/// exactly. Thread-safe; waits for nothing.
class TimeOfDay {
 public:
  /// The newest reading; the same one again changes nothing. True when the receiver's time has become another one by
  /// it: the first, or one that was corrected.
  bool Learn(const Gps::ReceiverTime& reading);

  /// That moment by the receiver, also one before the first fix; by the system as long as there was none.
  [[nodiscard]] EventStore::EventTime Tell(const Moment& moment) const;

  /// When the newest reading came; empty without.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> GetLastReading() const;

 private:
  void Adopt(std::int64_t offsetMs, std::chrono::steady_clock::time_point arrival);
  [[nodiscard]] std::int64_t GetOffset() const;

  mutable std::mutex m_mutex;
  std::optional<std::chrono::steady_clock::time_point> m_lastArrival;
  bool m_isKnown = false;
  /// The receiver's time minus the monotonic clock's, in milliseconds: the best of this window and of the one before.
  std::int64_t m_best = 0;
  std::int64_t m_bestBefore = 0;
  std::chrono::steady_clock::time_point m_windowBegan;
  /// What contradicts it, and how many readings in a row do.
  std::int64_t m_doubt = 0;
  int m_doubts = 0;
};

}  // namespace Tavi::Recorder
