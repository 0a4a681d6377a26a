// A clock that runs faster, or that is set while a program runs: preloaded, it stands between the program and the C
// library. Here are the functions that take or give times; on 32-bit machines this is compiled once for each width of
// them.
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "Simulator/FastClock/Next.h"
#include "Simulator/FastClock/TimeScale.h"

namespace {

using Tavi::FastClock::FindNext;
using Tavi::FastClock::SecondNs;
using Tavi::FastClock::TimeScale;
using Tavi::FastClock::ToNs;

timespec ToTimespec(std::int64_t ns) {
  return Tavi::FastClock::ToTime<timespec>(ns);
}

timespec Shorten(const timespec& duration) {
  return ToTimespec(TimeScale::Get().Shorten(ToNs(duration)));
}

timeval ToTimeval(std::int64_t ns) {
  timeval time{};
  time.tv_sec = static_cast<decltype(time.tv_sec)>(ns / SecondNs);
  time.tv_usec = static_cast<decltype(time.tv_usec)>(ns % SecondNs / 1000);
  return time;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) {
  const std::int64_t ns = TimeScale::AskMachine(clock);
  if (ns < 0) return -1;
  *time = ToTimespec(TimeScale::Get().Show(clock, ns));
  return 0;
}

int gettimeofday(timeval* __restrict time, void* __restrict) {
  *time = ToTimeval(TimeScale::Get().Now(CLOCK_REALTIME));
  return 0;
}

time_t time(time_t* result) {
  const auto seconds = static_cast<time_t>(TimeScale::Get().Now(CLOCK_REALTIME) / SecondNs);
  if (result != nullptr) *result = seconds;
  return seconds;
}

// What remains of an interrupted sleep is told in the program's time, too.
int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remaining) {
  static auto* const next = FindNext<int(clockid_t, int, const timespec*, timespec*)>(
      TAVI_TIME_NAME("clock_nanosleep", "__clock_nanosleep_time64"));
  const TimeScale& scale = TimeScale::Get();
  const bool isAbsolute = (flags & TIMER_ABSTIME) != 0;
  const timespec scaled = isAbsolute ? ToTimespec(scale.Find(clock, ToNs(*request))) : Shorten(*request);
  const int result = next(clock, flags, &scaled, remaining);
  if (result == EINTR && remaining != nullptr && !isAbsolute) {
    *remaining = ToTimespec(scale.Lengthen(ToNs(*remaining)));
  }
  return result;
}

int nanosleep(const timespec* request, timespec* remaining) {
  const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, request, remaining);
  errno = error != 0 ? error : errno;
  return error == 0 ? 0 : -1;
}

int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  static auto* const next =
      FindNext<int(pollfd*, nfds_t, const timespec*, const sigset_t*)>(TAVI_TIME_NAME("ppoll", "__ppoll64"));
  const timespec scaled = timeout != nullptr ? Shorten(*timeout) : timespec{};
  return next(descriptors, count, timeout != nullptr ? &scaled : nullptr, mask);
}

int select(int count, fd_set* reads, fd_set* writes, fd_set* errors, timeval* timeout) {
  static auto* const next =
      FindNext<int(int, fd_set*, fd_set*, fd_set*, timeval*)>(TAVI_TIME_NAME("select", "__select64"));
  timeval scaled{};
  if (timeout != nullptr) {
    const std::int64_t ns = timeout->tv_sec * SecondNs + timeout->tv_usec * std::int64_t{1000};
    scaled = ToTimeval(TimeScale::Get().Shorten(ns));
  }
  return next(count, reads, writes, errors, timeout != nullptr ? &scaled : nullptr);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
  static auto* const next = FindNext<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)>(
      TAVI_TIME_NAME("pthread_cond_clockwait", "__pthread_cond_clockwait64"));
  const timespec scaled = ToTimespec(TimeScale::Get().Find(clock, ToNs(*deadline)));
  return next(condition, mutex, clock, &scaled);
}

int pthread_cond_timedwait(pthread_cond_t* __restrict condition, pthread_mutex_t* __restrict mutex,
                           const timespec* __restrict deadline) {
  // The first version of the symbol is of another, older kind of condition variable; not every processor is so old.
  static auto* const next = FindNext<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)>(
      TAVI_TIME_NAME("pthread_cond_timedwait", "__pthread_cond_timedwait64"), "GLIBC_2.3.2");
  const timespec scaled = ToTimespec(TimeScale::Get().FindByGuess(ToNs(*deadline)));
  return next(condition, mutex, &scaled);
}

int timerfd_settime(int timer, int flags, const itimerspec* value, itimerspec* old) {
  static auto* const next =
      FindNext<int(int, int, const itimerspec*, itimerspec*)>(TAVI_TIME_NAME("timerfd_settime", "__timerfd_settime64"));
  const TimeScale& scale = TimeScale::Get();
  const std::int64_t ns = ToNs(value->it_value);
  itimerspec scaled{Shorten(value->it_interval), value->it_value};
  // 0 stops the timer and must stay 0; nothing else may become it.
  if (ns != 0) {
    const bool isAbsolute = (flags & TFD_TIMER_ABSTIME) != 0;
    scaled.it_value = ToTimespec(std::max<std::int64_t>(1, isAbsolute ? scale.FindByGuess(ns) : scale.Shorten(ns)));
  }
  return next(timer, flags, &scaled, old);
}
}
