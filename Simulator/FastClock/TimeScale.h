// How the program's time follows from the machine's, where a preloaded clock stands between the two.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <ctime>

namespace Tavi::FastClock {

constexpr std::int64_t SecondNs = 1'000'000'000;

/// A C library of 32-bit machines has functions of the same names for times of 32 and of 64 bits, and a program's
/// libraries call both. Everything here is in nanoseconds, so that both stand on one scale.
///
/// Read from the environment once; constant afterwards, so thread-safe.
class TimeScale {
 public:
  static const TimeScale& Get();

  /// Nanoseconds that a clock of the machine shows, or -1 with errno set.
  static std::int64_t AskMachine(clockid_t clock);

  /// What the program sees when it asks now.
  [[nodiscard]] std::int64_t Now(clockid_t clock) const;
  /// What a clock of the machine shows as the program sees it.
  [[nodiscard]] std::int64_t Show(clockid_t clock, std::int64_t machineNs) const;
  /// When a clock of the machine will show what the program calls `ns`. Not for times beyond a step of the wall clock:
  /// like the kernel's, such waits would have to be cut short; nothing here waits by the wall clock.
  [[nodiscard]] std::int64_t Find(clockid_t clock, std::int64_t ns) const;
  /// The same for a deadline whose clock is not to be had from outside, as that of a condition variable: it is near one
  /// clock and decades from the other.
  [[nodiscard]] std::int64_t FindByGuess(std::int64_t ns) const;

  [[nodiscard]] std::int64_t Shorten(std::int64_t durationNs) const {
    return static_cast<std::int64_t>(static_cast<double>(durationNs) / m_speed);
  }
  [[nodiscard]] std::int64_t Lengthen(std::int64_t durationNs) const {
    return static_cast<std::int64_t>(static_cast<double>(durationNs) * m_speed);
  }
  /// Never to 0: a time-out of one millisecond must not become a loop without a pause. 0 and "for ever" stay.
  [[nodiscard]] int ShortenMs(int durationMs) const;

 private:
  TimeScale();
  [[nodiscard]] std::int64_t StartOf(clockid_t clock) const { return m_startNs[static_cast<unsigned>(clock)]; }

  std::array<std::int64_t, CLOCK_BOOTTIME + 1> m_startNs{};
  double m_speed = 1;
  /// The wall clock is off by this much until then.
  std::int64_t m_stepNs = 0;
  std::int64_t m_stepAfterNs = 0;
};

}  // namespace Tavi::FastClock
