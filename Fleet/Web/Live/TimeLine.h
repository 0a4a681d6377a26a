// One time line for all of the recorder's streams.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "Fleet/Web/Live/RecordSink.h"

namespace Tavi::Web {

inline constexpr std::int64_t NsPerSecond = 1'000'000'000;

/// Places entries by their time stamps, which cameras and sound take from one clock; arrival only tells where that
/// clock's 0 is, and that another one has begun: after each start of the recorder's acquisition time stamps begin anew.
/// The time line goes on. Its 0 is the arrival of the first entry. Thread-bound.
class TimeLine {
 public:
  /// `arrivedNs` on the recorder's steady clock. Nanoseconds; rises within a stream except where its stamps begin anew
  /// somewhat before where the old ones had come to.
  std::int64_t Place(LiveStream stream, std::int64_t arrivedNs, std::optional<std::int64_t> timestampNs);
  /// Where 0 is on the recorder's steady clock; empty before the first entry.
  [[nodiscard]] std::optional<std::int64_t> GetZeroNs() const { return m_zeroNs; }

 private:
  /// One stream's time stamps.
  struct Stamps {
    /// What makes a time on the steady clock of a time stamp.
    std::int64_t offsetNs = 0;
    /// How much later than that entries arrive, smoothed.
    std::int64_t lagNs = 0;
    std::int64_t lastNs = 0;
  };

  [[nodiscard]] bool DoesContinue(const Stamps& stamps, std::int64_t arrivedNs, std::int64_t timestampNs) const;
  Stamps Begin(std::int64_t arrivedNs, std::int64_t timestampNs);

  std::optional<std::int64_t> m_zeroNs;
  /// Of the clock that began last.
  std::optional<std::int64_t> m_newestOffsetNs;
  std::array<std::optional<Stamps>, LiveStreams> m_streams;
};

}  // namespace Tavi::Web
