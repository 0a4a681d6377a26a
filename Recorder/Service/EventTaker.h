// Takes events from the queue, one after another, with one collect manager.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "Kbase/Interfaces/IThread.h"
#include "Kbase/Util/EntryGuard.h"
#include "Recorder/Service/EventArchive.h"
#include "Recorder/Service/EventQueue.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Recorder {

/// Owns the manager and the thread "EVENT", "EVENT-CR" with the second one and "EVENT-3" and so on with the spares,
/// which collects an event and puts it into the archive. Ends when the queue is closed; its destructor waits for that.
/// Borrows the rest.
class EventTaker final : public Kbase::Interfaces::IThread {
 public:
  /// `taker` is its number in the queue. `isEnding` tells whether an event that just ended was cut short from outside,
  /// `isStarting` whether the sources may be waited for. Both thread-safe.
  EventTaker(std::size_t taker, PipelineCollect::PipelineCollectManagerConfig& config, EventQueue& queue,
             EventArchive& archive, std::function<bool()> isEnding, std::function<bool()> isStarting);
  ~EventTaker() override;

  /// See PipelineCollectManager. Thread-safe.
  void PowerFailure() { m_manager.PowerFailure(); }
  /// Holds the window of `order` from now on, for whichever manager takes it. Thread-safe, waits for nothing.
  [[nodiscard]] std::shared_ptr<PipelineCollect::HeldWindow> Hold(const EventOrder& order) const;

 protected:
  void Run() override;

 private:
  EventResult TakeEvent(const EventOrder& order);
  void WaitForSources(const EventOrder& order) const;
  [[nodiscard]] std::set<PipelineCollect::PipelineCollectType> GetExpected() const;

  [[nodiscard]] bool HasRoom(const std::vector<int>& durationsSeconds) const;

  const std::size_t m_taker;
  const PipelineCollect::PipelineCollectManagerConfig m_config;
  PipelineCollect::PipelineCollectManager m_manager;
  EventQueue& m_queue;
  EventArchive& m_archive;
  const std::function<bool()> m_isEnding;
  const std::function<bool()> m_isStarting;
  Kbase::Util::EntryGuard m_eventGuard{Log::Tag, "an event could not be collected"};
};

}  // namespace Tavi::Recorder
