// Takes events from the queue, one after another, with one collect manager.
#include "Recorder/Service/EventTaker.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "Recorder/Service/EventRecord.h"
#include "Recorder/Settings/Limits.h"

namespace Tavi::Recorder {
namespace {

using PipelineCollect::PipelineCollectInput;

/// Shorter than a frame's interval, longer than a free manager takes to begin.
constexpr double Immediately = 0.02;

/// The window as the collect counts it: in whole seconds from its own start, `waited` after the moment of the event. It
/// is rounded outwards; what the rings do not hold any more is left out at its beginning.
PipelineCollectInput BuildInput(const EventOrder& order, double waitedSeconds, const std::string& directory) {
  const double waited = waitedSeconds < Immediately ? 0.0 : waitedSeconds;
  const double end = order.durationSeconds - order.beforeSeconds - waited;
  const double longest = -Limits::StartSeconds.low;
  const double start = std::min(std::ceil(order.beforeSeconds + waited), longest);
  PipelineCollectInput input;
  input.startSeconds = -static_cast<int>(start);
  input.durationSeconds = static_cast<int>(std::ceil(std::max(start + end, 0.0)));
  input.withPreview = order.withPreview;
  input.outputDir = directory;
  input.name = order.id;
  return input;
}

}  // namespace

EventTaker::EventTaker(PipelineCollect::PipelineCollectManagerConfig& config, EventQueue& queue, EventArchive& archive,
                       std::function<bool()> isEnding)
    : IThread(config.cr ? "EVENT-CR" : "EVENT"),
      m_second(config.cr),
      m_manager(config),
      m_queue(queue),
      m_archive(archive),
      m_isEnding(std::move(isEnding)) {}

EventTaker::~EventTaker() {
  Wait();
}

void EventTaker::Run() {
  const auto order = m_queue.Take(m_second);
  if (!order) {
    Cancel();
    return;
  }
  const EventResult result = TakeEvent(*order);
  m_queue.Finish(m_second);
  if (order->done) order->done(result);
}

EventResult EventTaker::TakeEvent(const EventOrder& order) {
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - order.moment;
  auto input = BuildInput(order, waited.count(), m_archive.GetWorkDir(order.id));
  PipelineCollect::PipelineCollectOutput output;
  if (!m_manager.Collect(input, output)) {
    m_archive.Withdraw(order.id);
    return {false, order.id, {}, 0, "it could not be collected: see the log"};
  }
  if (output.outputs.empty()) {
    // Stays while something is in it.
    ::rmdir(input.outputDir.c_str());
    // What power interrupts is finished at the next start, which goes by the note.
    if (!m_isEnding()) m_archive.Withdraw(order.id);
    return {false,
            order.id,
            {},
            0,
            m_isEnding() ? "the recorder ended: what there was is finished at the next start"
                         : "no source has delivered, or nothing could be written"};
  }
  auto event = DescribeEvent(order, output, m_second, waited.count());
  event.interrupted = m_isEnding();
  return m_archive.Save(event, ListSources(output), order.id, order.keep);
}

}  // namespace Tavi::Recorder
