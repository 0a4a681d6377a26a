// The thread that copies running events ahead.
#include "Tavi/EventCollect/CopyAheadThread.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <utility>

#include "Kbase/Util/Naming.h"
#include "Ksystem/SysUtil/Background.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::PipelineCollect {
namespace {

/// How often it looks whether the files have grown.
constexpr std::chrono::milliseconds Period{200};
/// With no event it is woken.
constexpr std::chrono::hours IdlePeriod{1};
constexpr std::size_t BlockBytes = std::size_t{1} << 20;
constexpr double BytesPerMB = 1e6;
/// A third of the share of those who produce and collect. It takes a hundredth of a processor; at the lowest priority
/// it got so little of a busy one that it fell behind.
constexpr int LowNice = 5;

}  // namespace

CopyAheadThread::CopyAheadThread(std::string name, std::string dir, double rateMBps)
    : IThread(std::move(name), OnFailure::GoOn),
      m_dir(std::move(dir)),
      m_bytesPerSecond(rateMBps * BytesPerMB),
      m_block(BlockBytes) {}

CopyAheadThread::~CopyAheadThread() {
  Stop();
  for (const auto& event : Share()) {
    event->Drop();
    event->Clear();
  }
}

std::shared_ptr<CopyAhead> CopyAheadThread::Begin(const CollectorMap& collectors, const std::string& base) {
  const std::string name = Kbase::Util::BuildEventFileName(base, std::time(nullptr));
  auto event = std::make_shared<CopyAhead>(collectors, m_dir, name);
  {
    const std::lock_guard lock(m_mutex);
    // Two events of one name within a second.
    if (name == std::exchange(m_lastName, name)) return nullptr;
    m_events.push_back(event);
  }
  if (!EnsureRunning()) event->Drop();
  Wake();
  return event;
}

bool CopyAheadThread::EnsureRunning() {
  const std::lock_guard lock(m_startMutex);
  return IsRunning() || Start();
}

/// When power fails its last block is waited for.
void CopyAheadThread::RunBefore() {
  Ksystem::SysUtil::GiveWay(LowNice);
}

CopyAheadThread::Events CopyAheadThread::Share() const {
  const std::lock_guard lock(m_mutex);
  return m_events;
}

void CopyAheadThread::Run() {
  std::size_t copied = 0;
  m_blockAt = Clock::now();
  const Events events = Share();
  if (events.empty()) WaitForCancel(IdlePeriod);
  for (const auto& event : events) {
    if (!event->IsOver()) copied += event->Step(m_block, [this](std::size_t bytes) { Pause(bytes); });
    if (event->IsOver()) Forget(event);
  }
  if (copied == 0 && !events.empty()) WaitForCancel(Period);
}

/// Time that was not used is not made up for.
void CopyAheadThread::Pause(std::size_t bytes) {
  const auto now = Clock::now();
  const std::chrono::duration<double> share(static_cast<double>(bytes) / m_bytesPerSecond);
  m_nextAt = std::max(m_nextAt, m_blockAt) + std::chrono::ceil<Clock::duration>(share);
  if (m_nextAt > now) WaitForCancel(std::chrono::ceil<Milliseconds>(m_nextAt - now));
  m_blockAt = Clock::now();
}

void CopyAheadThread::Forget(const std::shared_ptr<CopyAhead>& event) {
  event->Clear();
  Tell(event->GetProblem());
  const std::lock_guard lock(m_mutex);
  std::erase(m_events, event);
}

void CopyAheadThread::Tell(const std::string& problem) {
  if (!problem.empty() && !m_isToldOf) {
    Log::Warning(problem + "; a running event is copied when power fails, and not before");
  }
  m_isToldOf = !problem.empty();
}

}  // namespace Tavi::PipelineCollect
