// Makes the pages of complete events, behind everything else.
#include "Recorder/Service/PageThread.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

namespace Tavi::Recorder {
namespace {

constexpr int LowestNice = 19;
/// linux/ioprio.h: the calling thread, best effort, its lowest level. Not the idle class: others may wait for what this
/// thread holds of the file system.
constexpr int IoPrioWhoProcess = 1;
constexpr int IoPrioBestEffortLowest = (2 << 13) | 7;

}  // namespace

PageThread::PageThread(std::string eventsDir, std::function<bool()> isHurried)
    : IThread("PAGES", OnFailure::GoOn), m_pages(std::move(eventsDir), [this, isHurried = std::move(isHurried)] {
        return isHurried() || Clock::now() > m_end.load();
      }) {}

void PageThread::RunBefore() {
  // What cannot be had costs nothing but precedence.
  ::setpriority(PRIO_PROCESS, 0, LowestNice);
  ::syscall(SYS_ioprio_set, IoPrioWhoProcess, 0, IoPrioBestEffortLowest);
}

void PageThread::Run() {
  constexpr Milliseconds LookPeriod{1000};
  m_pages.Update();
  WaitForCancel(LookPeriod);
}

}  // namespace Tavi::Recorder
