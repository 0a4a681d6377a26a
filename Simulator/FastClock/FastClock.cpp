// A clock that runs faster, or that is set while a program runs: preloaded, it stands between the program and the C
// library.
#include <dlfcn.h>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

constexpr std::int64_t SecondNs = 1'000'000'000;

std::int64_t ToNs(const timespec& time) {
  return time.tv_sec * SecondNs + time.tv_nsec;
}

timespec ToTimespec(std::int64_t ns) {
  ns = std::max<std::int64_t>(ns, 0);
  return {static_cast<std::time_t>(ns / SecondNs), static_cast<long>(ns % SecondNs)};
}

/// The C library's own function behind the one that is defined here.
template <typename Function>
Function* FindNext(const char* name, const char* version = nullptr) {
  void* found = version != nullptr ? dlvsym(RTLD_NEXT, name, version) : nullptr;
  return reinterpret_cast<Function*>(found != nullptr ? found : dlsym(RTLD_NEXT, name));
}

bool IsWallClock(clockid_t clock) {
  return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

bool IsSteadyClock(clockid_t clock) {
  return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_MONOTONIC_RAW ||
         clock == CLOCK_BOOTTIME;
}

/// How the program's time follows from the machine's. Read from the environment once; constant afterwards, so
/// thread-safe.
class TimeScale {
 public:
  static const TimeScale& Get() {
    static const TimeScale scale;
    return scale;
  }

  /// What a clock of the machine shows as the program sees it.
  [[nodiscard]] std::int64_t Show(clockid_t clock, std::int64_t machineNs) const {
    if (!IsWallClock(clock) && !IsSteadyClock(clock)) return machineNs;
    const std::int64_t startNs = StartOf(clock);
    const auto elapsedNs = static_cast<std::int64_t>(static_cast<double>(machineNs - startNs) * m_speed);
    const bool isOff = IsWallClock(clock) && elapsedNs < m_stepAfterNs;
    return startNs + elapsedNs + (isOff ? m_stepNs : 0);
  }

  /// When a clock of the machine will show what the program calls `ns`. Not for times beyond a step of the wall clock:
  /// like the kernel's, such waits would have to be cut short; nothing here waits by the wall clock.
  [[nodiscard]] std::int64_t Find(clockid_t clock, std::int64_t ns) const {
    if (!IsWallClock(clock) && !IsSteadyClock(clock)) return ns;
    const std::int64_t startNs = StartOf(clock);
    return startNs + Shorten(ns - startNs);
  }

  [[nodiscard]] std::int64_t Shorten(std::int64_t durationNs) const {
    return static_cast<std::int64_t>(static_cast<double>(durationNs) / m_speed);
  }
  [[nodiscard]] std::int64_t Lengthen(std::int64_t durationNs) const {
    return static_cast<std::int64_t>(static_cast<double>(durationNs) * m_speed);
  }
  [[nodiscard]] timespec Shorten(const timespec& duration) const { return ToTimespec(Shorten(ToNs(duration))); }
  /// Never to 0: a time-out of one millisecond must not become a loop without a pause. 0 and "for ever" stay.
  [[nodiscard]] int ShortenMs(int durationMs) const {
    return durationMs <= 0 ? durationMs : std::max(1, static_cast<int>(std::lround(durationMs / m_speed)));
  }

  /// 0, or -1 with errno set.
  static int AskMachine(clockid_t clock, timespec& time) {
    static auto* const next = FindNext<int(clockid_t, timespec*)>("clock_gettime");
    return next(clock, &time);
  }

 private:
  TimeScale() {
    for (unsigned clock = 0; clock < m_startNs.size(); ++clock) m_startNs[clock] = Read(static_cast<int>(clock));
    if (const char* speed = std::getenv("TAVI_CLOCK_SPEED")) m_speed = std::clamp(std::atof(speed), 0.01, 1000.0);
    double stepSeconds = 0;
    double afterSeconds = 0;
    const char* step = std::getenv("TAVI_CLOCK_STEP");
    if (step == nullptr || std::sscanf(step, "%lf@%lf", &stepSeconds, &afterSeconds) != 2) return;
    m_stepNs = static_cast<std::int64_t>(stepSeconds * 1e9);
    m_stepAfterNs = static_cast<std::int64_t>(afterSeconds * 1e9);
  }

  static std::int64_t Read(clockid_t clock) {
    timespec time{};
    AskMachine(clock, time);
    return ToNs(time);
  }
  [[nodiscard]] std::int64_t StartOf(clockid_t clock) const { return m_startNs[static_cast<unsigned>(clock)]; }

  std::array<std::int64_t, CLOCK_BOOTTIME + 1> m_startNs{};
  double m_speed = 1;
  /// The wall clock is off by this much until then.
  std::int64_t m_stepNs = 0;
  std::int64_t m_stepAfterNs = 0;
};

const TimeScale& Scale() {
  return TimeScale::Get();
}

std::int64_t Now(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return ToNs(time);
}

/// The clock of a condition variable is not to be had from outside; a deadline is near one clock and decades from the
/// other.
clockid_t GuessClock(std::int64_t deadlineNs) {
  const auto distance = [&](clockid_t clock) { return std::llabs(deadlineNs - Now(clock)); };
  return distance(CLOCK_MONOTONIC) < distance(CLOCK_REALTIME) ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

long WaitOnFutex(const std::array<long, 6>& arguments) {
  static auto* const next = FindNext<long(long, ...)>("syscall");
  const auto [address, operation, value, timeout, address2, value3] = arguments;
  const long command = operation & ~(FUTEX_PRIVATE_FLAG | FUTEX_CLOCK_REALTIME);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a system call takes every argument as a number
  const auto* asked = reinterpret_cast<const timespec*>(timeout);
  timespec scaled{};
  // The fourth argument is a time in these two only; elsewhere it may be a number.
  if ((command == FUTEX_WAIT || command == FUTEX_WAIT_BITSET) && asked != nullptr) {
    const clockid_t clock = (operation & FUTEX_CLOCK_REALTIME) != 0 ? CLOCK_REALTIME : CLOCK_MONOTONIC;
    scaled = command == FUTEX_WAIT ? Scale().Shorten(*asked) : ToTimespec(Scale().Find(clock, ToNs(*asked)));
    asked = &scaled;
  }
  return next(SYS_futex, address, operation, value, asked, address2, value3);
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) {
  const int error = TimeScale::AskMachine(clock, *time);
  if (error == 0) *time = ToTimespec(Scale().Show(clock, ToNs(*time)));
  return error;
}

int gettimeofday(timeval* __restrict time, void* __restrict) {
  const std::int64_t ns = Now(CLOCK_REALTIME);
  *time = {ns / SecondNs, ns % SecondNs / 1000};
  return 0;
}

time_t time(time_t* result) {
  const time_t seconds = Now(CLOCK_REALTIME) / SecondNs;
  if (result != nullptr) *result = seconds;
  return seconds;
}

// What remains of an interrupted sleep is told in the program's time, too.
int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remaining) {
  static auto* const next = FindNext<int(clockid_t, int, const timespec*, timespec*)>("clock_nanosleep");
  const bool isAbsolute = (flags & TIMER_ABSTIME) != 0;
  const timespec scaled = isAbsolute ? ToTimespec(Scale().Find(clock, ToNs(*request))) : Scale().Shorten(*request);
  const int result = next(clock, flags, &scaled, remaining);
  if (result == EINTR && remaining != nullptr && !isAbsolute) {
    *remaining = ToTimespec(Scale().Lengthen(ToNs(*remaining)));
  }
  return result;
}

int nanosleep(const timespec* request, timespec* remaining) {
  const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, request, remaining);
  errno = error != 0 ? error : errno;
  return error == 0 ? 0 : -1;
}

int usleep(useconds_t durationUs) {
  const timespec request = ToTimespec(durationUs * std::int64_t{1000});
  return nanosleep(&request, nullptr);
}

unsigned sleep(unsigned seconds) {
  const timespec request{static_cast<time_t>(seconds), 0};
  timespec remaining{};
  return nanosleep(&request, &remaining) == 0 ? 0 : static_cast<unsigned>(remaining.tv_sec);
}

int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  static auto* const next = FindNext<int(pollfd*, nfds_t, const timespec*, const sigset_t*)>("ppoll");
  const timespec scaled = timeout != nullptr ? Scale().Shorten(*timeout) : timespec{};
  return next(descriptors, count, timeout != nullptr ? &scaled : nullptr, mask);
}

int poll(pollfd* descriptors, nfds_t count, int timeoutMs) {
  const timespec timeout = ToTimespec(timeoutMs * std::int64_t{1'000'000});
  return ppoll(descriptors, count, timeoutMs < 0 ? nullptr : &timeout, nullptr);
}

int select(int count, fd_set* reads, fd_set* writes, fd_set* errors, timeval* timeout) {
  static auto* const next = FindNext<int(int, fd_set*, fd_set*, fd_set*, timeval*)>("select");
  timeval scaled{};
  if (timeout != nullptr) {
    const std::int64_t ns = Scale().Shorten(timeout->tv_sec * SecondNs + timeout->tv_usec * std::int64_t{1000});
    scaled = {ns / SecondNs, ns % SecondNs / 1000};
  }
  return next(count, reads, writes, errors, timeout != nullptr ? &scaled : nullptr);
}

int epoll_pwait(int epoll, epoll_event* events, int count, int timeoutMs, const sigset_t* mask) {
  static auto* const next = FindNext<int(int, epoll_event*, int, int, const sigset_t*)>("epoll_pwait");
  return next(epoll, events, count, Scale().ShortenMs(timeoutMs), mask);
}

int epoll_wait(int epoll, epoll_event* events, int count, int timeoutMs) {
  return epoll_pwait(epoll, events, count, timeoutMs, nullptr);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
  static auto* const next =
      FindNext<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)>("pthread_cond_clockwait");
  const timespec scaled = ToTimespec(Scale().Find(clock, ToNs(*deadline)));
  return next(condition, mutex, clock, &scaled);
}

int pthread_cond_timedwait(pthread_cond_t* __restrict condition, pthread_mutex_t* __restrict mutex,
                           const timespec* __restrict deadline) {
  // The first version of the symbol is of another, older kind of condition variable.
  static auto* const next =
      FindNext<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)>("pthread_cond_timedwait", "GLIBC_2.3.2");
  const std::int64_t ns = ToNs(*deadline);
  const timespec scaled = ToTimespec(Scale().Find(GuessClock(ns), ns));
  return next(condition, mutex, &scaled);
}

int timerfd_settime(int timer, int flags, const itimerspec* value, itimerspec* old) {
  static auto* const next = FindNext<int(int, int, const itimerspec*, itimerspec*)>("timerfd_settime");
  const std::int64_t ns = ToNs(value->it_value);
  itimerspec scaled{Scale().Shorten(value->it_interval), value->it_value};
  // 0 stops the timer and must stay 0; nothing else may become it.
  if (ns != 0) {
    const bool isAbsolute = (flags & TFD_TIMER_ABSTIME) != 0;
    scaled.it_value =
        ToTimespec(std::max<std::int64_t>(1, isAbsolute ? Scale().Find(GuessClock(ns), ns) : Scale().Shorten(ns)));
  }
  return next(timer, flags, &scaled, old);
}

// GLib and GStreamer wait by the system call itself.
long syscall(long number, ...) {
  static auto* const next = FindNext<long(long, ...)>("syscall");
  std::array<long, 6> arguments{};
  va_list list;
  va_start(list, number);
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  if (number == SYS_futex) return WaitOnFutex(arguments);
  const auto [a, b, c, d, e, f] = arguments;
  return next(number, a, b, c, d, e, f);
}
}
