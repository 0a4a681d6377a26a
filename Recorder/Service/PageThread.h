// Makes the pages of complete events, behind everything else.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "EventPage/PageFolder.h"
#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Recorder {

/// Owns the thread "PAGES", which looks at the events directory once a second, with the processor and the disk that
/// nobody else wants. It has no part in making or removing events: where it fails there is no page. Stop makes the
/// pages of what was saved last, for two seconds at most; the next start makes what is missing then.
class PageThread final : public Kbase::Interfaces::IThread {
 public:
  /// `isHurried`: thread-safe; while it is true no page is begun, as when power fails.
  PageThread(std::string eventsDir, std::function<bool()> isHurried);
  ~PageThread() override { Stop(); }

  /// The page of the event with that id, and its line in the list, are made anew. Thread-safe; waits for nothing.
  void Renew(const std::string& id);

 protected:
  void RunBefore() override;
  void Run() override;
  void RunAfter() override { m_pages.Update(); }
  void Stopping() override { m_end = Clock::now() + LongestEnd; }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds LongestEnd{2};

  void RenewWanted();

  EventTools::PageFolder m_pages;
  /// Guards m_renewed.
  std::mutex m_mutex;
  std::vector<std::string> m_renewed;
  /// When it has to end; far away before Stop.
  std::atomic<Clock::time_point> m_end{Clock::time_point::max()};
};

}  // namespace Tavi::Recorder
