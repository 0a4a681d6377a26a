// Lets an exception end one entry of a stream and not the thread that makes it.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace Kbase::Util {

/// Stands between code that may throw, for want of memory above all, and a caller that nothing may be thrown at: C
/// code, or a thread that is to go on with the next entry. Says in the log what was lost, one line an interval.
/// Thread-safe.
class EntryGuard {
 public:
  /// `tag` is the log's, and lives as long as the guard; `what` begins the line: "a fix of the receiver is lost".
  EntryGuard(std::string_view tag, std::string what) : m_tag(tag), m_what(std::move(what)) {}

  /// False when `body` threw. What it had taken over by then it has released itself.
  template <class Body>
  bool Run(Body&& body) noexcept {
    try {
      std::forward<Body>(body)();
      return true;
    } catch (const std::bad_alloc&) {
      Note("out of memory");
    } catch (const std::exception& error) {
      Note(error.what());
    } catch (...) {
      Note("an unknown exception");
    }
    return false;
  }

 private:
  void Note(const char* reason) noexcept;

  const std::string_view m_tag;
  const std::string m_what;
  std::atomic<std::uint64_t> m_count{0};
  /// When the last line was written, in milliseconds of the steady clock; 0 before the first.
  std::atomic<std::int64_t> m_toldAtMs{0};
};

}  // namespace Kbase::Util
