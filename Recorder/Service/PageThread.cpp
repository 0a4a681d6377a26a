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

void PageThread::Renew(const std::string& id) {
  {
    const std::lock_guard lock(m_mutex);
    m_renewed.push_back(id);
  }
  Wake();
}

void PageThread::RenewWanted() {
  std::vector<std::string> wanted;
  {
    const std::lock_guard lock(m_mutex);
    wanted.swap(m_renewed);
  }
  for (const std::string& id : wanted) m_pages.Renew(id);
}

void PageThread::Run() {
  constexpr Milliseconds LookPeriod{1000};
  RenewWanted();
  m_pages.Update();
  WaitForCancel(LookPeriod);
}

}  // namespace Tavi::Recorder
