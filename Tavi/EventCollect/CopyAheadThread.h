// The thread that copies running events ahead.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Kbase/Interfaces/IThread.h"
#include "Tavi/EventCollect/CopyAhead.h"

namespace Tavi::PipelineCollect {

/// Serves the events of one manager, or of several that share it, at the lowest priority of processor and disk and
/// within a rate: nobody waits for it. It stops within a block's time; what it was still serving then is dropped. Begin
/// is called by the collecting threads.
class CopyAheadThread final : public Kbase::Interfaces::IThread {
 public:
  /// Copies to `dir`, at most `rateMBps` million bytes a second for all events together; above 0.
  CopyAheadThread(std::string name, std::string dir, double rateMBps);
  ~CopyAheadThread() override;

  /// Begins to copy an event whose collectors are armed, under names that begin with `base` and tell the time. Null
  /// when that cannot be done.
  [[nodiscard]] std::shared_ptr<CopyAhead> Begin(const CollectorMap& collectors, const std::string& base);

 protected:
  void RunBefore() override;
  void Run() override;

 private:
  using Clock = std::chrono::steady_clock;
  using Events = std::vector<std::shared_ptr<CopyAhead>>;

  [[nodiscard]] Events Share() const;
  void Pause(std::size_t bytes);
  void Forget(const std::shared_ptr<CopyAhead>& event);
  void Tell(const std::string& problem);
  bool EnsureRunning();

  const std::string m_dir;
  const double m_bytesPerSecond;
  std::vector<char> m_block;
  /// When the block under way was begun, and when the next one may be.
  Clock::time_point m_blockAt;
  Clock::time_point m_nextAt;
  /// What keeps it from copying has been said.
  bool m_isToldOf = false;
  std::mutex m_startMutex;
  mutable std::mutex m_mutex;
  Events m_events;
  std::string m_lastName;
};

}  // namespace Tavi::PipelineCollect
