// The preloaded clock's functions whose times are plain numbers, and the system call by which others wait.
#include <linux/futex.h>
#include <linux/time_types.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <ctime>

#include "Simulator/FastClock/Next.h"
#include "Simulator/FastClock/TimeScale.h"

namespace {

using Tavi::FastClock::FindNext;
using Tavi::FastClock::TimeScale;
using Tavi::FastClock::ToNs;
using Tavi::FastClock::ToTime;

/// `Time` is what the system call `number` takes, whatever the C library calls a timespec.
template <typename Time>
long WaitOnFutex(long number, const std::array<long, 6>& arguments) {
  static auto* const next = FindNext<long(long, ...)>("syscall");
  const auto [address, operation, value, timeout, address2, value3] = arguments;
  const long command = operation & ~(FUTEX_PRIVATE_FLAG | FUTEX_CLOCK_REALTIME);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a system call takes every argument as a number
  const auto* asked = reinterpret_cast<const Time*>(timeout);
  Time scaled{};
  // The fourth argument is a time in these two only; elsewhere it may be a number.
  if ((command == FUTEX_WAIT || command == FUTEX_WAIT_BITSET) && asked != nullptr) {
    const TimeScale& scale = TimeScale::Get();
    const clockid_t clock = (operation & FUTEX_CLOCK_REALTIME) != 0 ? CLOCK_REALTIME : CLOCK_MONOTONIC;
    scaled = ToTime<Time>(command == FUTEX_WAIT ? scale.Shorten(ToNs(*asked)) : scale.Find(clock, ToNs(*asked)));
    asked = &scaled;
  }
  return next(number, address, operation, value, asked, address2, value3);
}

}  // namespace

extern "C" {

int usleep(useconds_t durationUs) {
  const auto request = ToTime<timespec>(durationUs * std::int64_t{1000});
  return nanosleep(&request, nullptr);
}

unsigned sleep(unsigned seconds) {
  const timespec request{static_cast<time_t>(seconds), 0};
  timespec remaining{};
  return nanosleep(&request, &remaining) == 0 ? 0 : static_cast<unsigned>(remaining.tv_sec);
}

int poll(pollfd* descriptors, nfds_t count, int timeoutMs) {
  const auto timeout = ToTime<timespec>(timeoutMs * std::int64_t{1'000'000});
  return ppoll(descriptors, count, timeoutMs < 0 ? nullptr : &timeout, nullptr);
}

int epoll_pwait(int epoll, epoll_event* events, int count, int timeoutMs, const sigset_t* mask) {
  static auto* const next = FindNext<int(int, epoll_event*, int, int, const sigset_t*)>("epoll_pwait");
  return next(epoll, events, count, TimeScale::Get().ShortenMs(timeoutMs), mask);
}

int epoll_wait(int epoll, epoll_event* events, int count, int timeoutMs) {
  return epoll_pwait(epoll, events, count, timeoutMs, nullptr);
}

// GLib and GStreamer wait by the system call itself.
long syscall(long number, ...) {
  static auto* const next = FindNext<long(long, ...)>("syscall");
  std::array<long, 6> arguments{};
  va_list list;
  va_start(list, number);
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  if (number == SYS_futex) return WaitOnFutex<__kernel_old_timespec>(number, arguments);
#ifdef SYS_futex_time64
  if (number == SYS_futex_time64) return WaitOnFutex<__kernel_timespec>(number, arguments);
#endif
  const auto [a, b, c, d, e, f] = arguments;
  return next(number, a, b, c, d, e, f);
}
}
