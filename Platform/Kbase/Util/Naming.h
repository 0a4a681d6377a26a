// Names and times in text form: unique identifiers, dates, event file names.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <string_view>

namespace Kbase::Util {

static_assert(sizeof(std::time_t) == 8 && sizeof(off_t) == 8,
              "build with -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64: times end in 2038 and files at 2 GiB otherwise");

/// A fresh random identifier (RFC 4122 version 4, lower case, 36 characters). Thread-safe.
std::string NewUid();

/// The present wall-clock time in local time, formatted by strftime. Thread-safe.
std::string NewDate(const char* format = "%Y-%m-%d %H:%M:%S");

/// `text` with every occurrence of `from` replaced by `to`; `text` itself when `from` is empty or absent.
std::string Replace(std::string_view text, std::string_view from, std::string_view to);

/// The name under which the files of an event outlive a power failure: `base`, "_", then `when` in UTC as
/// "20261121T071500Z", so that names sort by time and carry no character that a file system refuses.
std::string BuildEventFileName(std::string_view base, std::time_t when);

}  // namespace Kbase::Util
