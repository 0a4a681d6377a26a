// The C library's own functions behind those that the preloaded clock defines.
#pragma once

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <ctime>

/// The name in the C library of a function that takes a time: on 32-bit machines its header gives a source that asks
/// for times of 64 bits another function than its name says, here as there.
#if __TIMESIZE == 32 && defined(__USE_TIME_BITS64)
#define TAVI_TIME_NAME(name, wideName) wideName
#else
#define TAVI_TIME_NAME(name, wideName) name
#endif

namespace Tavi::FastClock {

template <typename Function>
Function* FindNext(const char* name, const char* version = nullptr) {
  void* found = version != nullptr ? dlvsym(RTLD_NEXT, name, version) : nullptr;
  return reinterpret_cast<Function*>(found != nullptr ? found : dlsym(RTLD_NEXT, name));
}

/// `Time` has whole seconds and nanoseconds, as wide as the function takes them. Static: two sources of one library
/// have two kinds of timespec.
template <typename Time>
static std::int64_t ToNs(const Time& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

template <typename Time>
static Time ToTime(std::int64_t ns) {
  ns = std::max<std::int64_t>(ns, 0);
  Time time{};
  time.tv_sec = static_cast<decltype(time.tv_sec)>(ns / 1'000'000'000);
  time.tv_nsec = static_cast<decltype(time.tv_nsec)>(ns % 1'000'000'000);
  return time;
}

}  // namespace Tavi::FastClock
