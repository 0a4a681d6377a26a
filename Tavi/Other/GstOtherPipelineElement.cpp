// Samples the machine's state once a second.
#include "Tavi/Other/GstOtherPipelineElement.h"

#include <algorithm>

#include "Kbase/Util/CpuMonitor.h"
#include "Kbase/Util/TemperatureMonitor.h"

namespace Tavi::Other {
namespace {

constexpr int PeriodMs = 1000;
constexpr int TimerStackBytes = 16384;

}  // namespace

GstOtherPipelineElement::GstOtherPipelineElement(const OtherConfig& config) : m_rate(config.rate) {}

GstOtherPipelineElement::~GstOtherPipelineElement() = default;

void GstOtherPipelineElement::Start() {
  m_timestamp = 0;
  if (m_timer) return;
  m_timer = std::make_unique<Kbase::Util::Timer>(
      PeriodMs, [this](Kbase::Util::Timer* timer) { Tick(timer); }, nullptr, TimerStackBytes);
}

void GstOtherPipelineElement::Stop() {
  m_timer.reset();
}

void GstOtherPipelineElement::Tick(Kbase::Util::Timer* /*timer*/) {
  auto sample = std::make_unique<OtherDataPak>();
  sample->cpuUsage = static_cast<std::uint8_t>(Kbase::Util::CpuMonitor::GetUsage());
  sample->temperature = static_cast<std::uint8_t>(Kbase::Util::TemperatureMonitor::GetInstance().GetTemperature());
  SetFrame(BuildGstBuffer(*sample.release()));
}

GstBuffer* GstOtherPipelineElement::BuildGstBuffer(OtherDataPak& sample) {
  GstBuffer* buffer = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, &sample, sizeof(sample), 0, sizeof(sample),
                                                  &sample, GstBufferDestroyedNotify);
  GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale_int(1, GST_SECOND, std::max(m_rate, 1));
  GST_BUFFER_PTS(buffer) = m_timestamp.fetch_add(GST_BUFFER_DURATION(buffer));
  return buffer;
}

void GstOtherPipelineElement::GstBufferDestroyedNotify(void* sample) {
  delete static_cast<OtherDataPak*>(sample);
}

}  // namespace Tavi::Other
