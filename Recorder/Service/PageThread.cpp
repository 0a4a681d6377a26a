// Makes the pages of complete events, behind everything else.
#include "Recorder/Service/PageThread.h"

#include <utility>

#include "Ksystem/SysUtil/Background.h"

namespace Tavi::Recorder {
namespace {

constexpr int LowestNice = 19;

}  // namespace

PageThread::PageThread(std::string eventsDir, std::function<bool()> isHurried)
    : IThread("PAGES", OnFailure::GoOn), m_pages(std::move(eventsDir), [this, isHurried = std::move(isHurried)] {
        return isHurried() || Clock::now() > m_end.load();
      }) {}

void PageThread::RunBefore() {
  Ksystem::SysUtil::GiveWay(LowestNice);
}

void PageThread::Run() {
  constexpr Milliseconds LookPeriod{1000};
  m_pages.Update();
  WaitForCancel(LookPeriod);
}

}  // namespace Tavi::Recorder
