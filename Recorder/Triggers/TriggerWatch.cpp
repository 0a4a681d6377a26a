// Watches the sensors for reasons to take an event.
#include "Recorder/Triggers/TriggerWatch.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>

#include "Tavi/GstUtil/BufferMap.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Recorder::Triggers {

using GstUtil::BufferMap;
using GstUtil::GstPipelineCbElement;
using Pipeline::PipelineType;

namespace {

constexpr std::chrono::milliseconds Round{50};
constexpr double SamplesPerBlock = static_cast<double>(Accel::AccDataPak::BlockBytes) / 3.0;
/// Of an accelerometer that does not tell its rate.
constexpr double UsualBlocksPerSecond = 10.0;

double GetSampleSeconds(const LiveRing::Ring& ring) {
  const double blocks = ring ? static_cast<double>(ring->GetFps()) : 0.0;
  return 1.0 / ((blocks > 0.0 ? blocks : UsualBlocksPerSecond) * SamplesPerBlock);
}

}  // namespace

TriggerWatch::TriggerWatch(const Settings& settings, GetRing getRing, Callback callback, Kbase::Util::IClock& clock)
    : IThread("TRIGGER", OnFailure::GoOn),
      m_getRing(std::move(getRing)),
      m_callback(std::move(callback)),
      m_clock(clock),
      m_trigger(settings.acceleration, [this](const AccelerationTrigger::Firing& firing) { Judge(firing); }),
      m_guard(settings.minSpeedKnots) {}

TriggerWatch::~TriggerWatch() {
  Stop();
}

/// The receiver first: the guard is to know the speed when the trigger asks.
void TriggerWatch::Run() {
  FollowGps();
  FollowAcc();
  WaitForCancel(Round);
}

void TriggerWatch::FollowGps() {
  m_gps.Follow(m_getRing(PipelineType::Gps));
  while (const auto entry = m_gps.Next()) {
    const auto* media = dynamic_cast<const GstPipelineCbElement*>(entry.get());
    const BufferMap map(media);
    if (const auto* fix = map.GetRecord<Gps::GpsData>()) m_guard.Feed(*fix, m_clock.Now() - media->GetAge());
  }
}

void TriggerWatch::FollowAcc() {
  LiveRing::Ring ring = m_getRing(PipelineType::Acc);
  const double sampleSeconds = GetSampleSeconds(ring);
  if (!m_acc.Follow(ring)) m_trigger.Restart();
  // Whoever the trigger calls may stop the acquisition: that must not have to wait for this share in it.
  ring.reset();
  while (const auto entry = m_acc.Next()) {
    const BufferMap map(dynamic_cast<const GstPipelineCbElement*>(entry.get()));
    if (const auto* block = map.GetRecord<Accel::AccDataPak>()) m_trigger.Feed(*block, sampleSeconds);
  }
}

/// A firing that the guard turned down must not keep a real one waiting.
void TriggerWatch::Judge(const AccelerationTrigger::Firing& firing) {
  const std::string what = fmt::format("acceleration of {:.2f} g for {} ms", firing.peakG, firing.durationMs);
  if (m_guard.IsAllowed(m_clock.Now())) {
    m_callback(what);
    return;
  }
  m_trigger.Rearm();
  Log::Info(what + ": no event, the vehicle has hardly moved");
}

}  // namespace Tavi::Recorder::Triggers
