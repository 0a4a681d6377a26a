// Takes events from the queue, one after another, with one collect manager.
#include "Recorder/Service/EventTaker.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>

#include "Recorder/Service/EventRecord.h"
#include "Recorder/Service/MissingParts.h"
#include "Tavi/EventCollect/WorkRoom.h"

namespace Tavi::Recorder {
namespace {

using PipelineCollect::PipelineCollectInput;

/// Stored entries for each new one: what lies behind is on the disk within two seconds, also of a source that delivers
/// once a second.
constexpr int Pace = 32;
constexpr std::chrono::milliseconds StartPoll{50};

EventResult Failure(const std::string& id, const char* problem) {
  EventResult result;
  result.id = id;
  result.problem = problem;
  return result;
}

PipelineCollectInput BuildInput(const EventOrder& order, const std::string& directory) {
  PipelineCollectInput input;
  input.startSeconds = -order.beforeSeconds;
  input.durationSeconds = order.durationSeconds;
  input.withPreview = order.withPreview;
  input.outputDir = directory;
  input.name = order.id;
  input.care.moment = order.moment.steady;
  input.care.cover = true;
  input.care.keepTimes = true;
  input.care.pace = Pace;
  input.held = order.held;
  return input;
}

std::string GetThreadName(std::size_t taker) {
  if (taker > EventQueue::Second) return "EVENT-" + std::to_string(taker + 1);
  return taker == EventQueue::Second ? "EVENT-CR" : "EVENT";
}

const char* GetManagerName(std::size_t taker) {
  if (taker > EventQueue::Second) return "spare";
  return taker == EventQueue::Second ? "second" : "first";
}

}  // namespace

EventTaker::EventTaker(std::size_t taker, PipelineCollect::PipelineCollectManagerConfig& config, EventQueue& queue,
                       EventArchive& archive, std::function<bool()> isEnding, std::function<bool()> isStarting)
    : IThread(GetThreadName(taker), OnFailure::GoOn),
      m_taker(taker),
      m_config(config),
      m_manager(config),
      m_queue(queue),
      m_archive(archive),
      m_isEnding(std::move(isEnding)),
      m_isStarting(std::move(isStarting)) {}

EventTaker::~EventTaker() {
  Wait();
}

void EventTaker::Run() {
  const auto order = m_queue.Take(m_taker, [this](const std::vector<int>& durations) { return HasRoom(durations); });
  if (!order) {
    Cancel();
    return;
  }
  // Whoever waits for the event is told, whatever becomes of it.
  EventResult result = Failure(order->id, "it could not be collected: see the log");
  m_eventGuard.Run([&] { result = TakeEvent(*order); });
  m_queue.Finish(m_taker);
  if (order->done) order->done(result);
}

/// As if nothing of those that run were there yet: their files only grow.
bool EventTaker::HasRoom(const std::vector<int>& durationsSeconds) const {
  std::uint64_t needed = 0;
  for (const int seconds : durationsSeconds) {
    needed += PipelineCollect::EstimateWorkBytes(m_config.pipelineManager->GetConfig(), seconds, true);
  }
  return PipelineCollect::HasRoom(m_config.workDir, needed);
}

std::shared_ptr<PipelineCollect::HeldWindow> EventTaker::Hold(const EventOrder& order) const {
  return m_manager.Hold(BuildInput(order, {}));
}

/// A request that comes while the recorder starts is answered with what comes: the sources' first entries are waited
/// for.
void EventTaker::WaitForSources(const EventOrder& order) const {
  while (m_isStarting() && !m_isEnding()) {
    if (order.held) order.held->Follow();
    std::this_thread::sleep_for(StartPoll);
  }
}

std::set<PipelineCollect::PipelineCollectType> EventTaker::GetExpected() const {
  using PipelineCollect::PipelineCollectType;
  std::set<PipelineCollectType> expected;
  for (int value = 0; value <= static_cast<int>(PipelineCollectType::Preview); ++value) {
    const auto type = static_cast<PipelineCollectType>(value);
    if (m_manager.GetCollectElement(type) != nullptr) expected.insert(type);
  }
  return expected;
}

EventResult EventTaker::TakeEvent(const EventOrder& order) {
  WaitForSources(order);
  const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - order.moment.steady;
  auto input = BuildInput(order, m_archive.GetWorkDir(order.id));
  PipelineCollect::PipelineCollectOutput output;
  if (!m_manager.Collect(input, output)) {
    m_archive.Withdraw(order.id);
    return Failure(order.id, "it could not be collected: see the log");
  }
  if (output.windows.empty() && m_isEnding()) {
    // Stays while something is in it: what power interrupts is finished at the next start, which goes by the note.
    ::rmdir(input.outputDir.c_str());
    return Failure(order.id, "the recorder ended: what there was is finished at the next start");
  }
  if (output.windows.empty()) {
    m_archive.DropWorkDir(order.id);
    m_archive.Withdraw(order.id);
    return Failure(order.id, "no source has delivered, or nothing could be written");
  }
  auto event = DescribeEvent(order, output, GetManagerName(m_taker), waited.count());
  event.interrupted = m_isEnding();
  event.missing = FindMissing(order, GetExpected(), output);
  auto missing = event.missing;
  auto result = m_archive.Save(event, ListSources(output), order.id, order.keep, order.moment);
  result.missing = std::move(missing);
  return result;
}

}  // namespace Tavi::Recorder
