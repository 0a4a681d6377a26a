// Samples the machine's state once a second.
#include "Tavi/Other/GstOtherPipelineElement.h"

#include "Kbase/Util/CpuMonitor.h"
#include "Kbase/Util/TemperatureMonitor.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Other {
namespace {

constexpr int PeriodMs = 1000;
constexpr int TimerStackBytes = 16384;

}  // namespace

GstOtherPipelineElement::GstOtherPipelineElement(const OtherConfig& config)
    : m_buffers(GST_MEMORY_FLAG_READONLY, config.rate, GstBufferDestroyedNotify),
      m_guard(Log::Tag, "a sample of the machine's state is lost") {}

GstOtherPipelineElement::~GstOtherPipelineElement() = default;

void GstOtherPipelineElement::Start() {
  m_buffers.Restart();
  if (m_timer) return;
  m_timer = std::make_unique<Kbase::Util::Timer>(
      PeriodMs, [this](Kbase::Util::Timer* timer) { Tick(timer); }, nullptr, TimerStackBytes);
}

void GstOtherPipelineElement::Stop() {
  m_timer.reset();
}

void GstOtherPipelineElement::Tick(Kbase::Util::Timer* /*timer*/) {
  m_guard.Run([this] {
    auto sample = std::make_unique<OtherDataPak>();
    sample->cpuUsage = static_cast<std::uint8_t>(Kbase::Util::CpuMonitor::GetUsage());
    sample->temperature = static_cast<std::uint8_t>(Kbase::Util::TemperatureMonitor::GetInstance().GetTemperature());
    SetFrame(BuildGstBuffer(*sample.release()));
  });
}

GstBuffer* GstOtherPipelineElement::BuildGstBuffer(OtherDataPak& sample) {
  return m_buffers.Wrap(&sample);
}

void GstOtherPipelineElement::GstBufferDestroyedNotify(void* sample) noexcept {
  delete static_cast<OtherDataPak*>(sample);
}

}  // namespace Tavi::Other
