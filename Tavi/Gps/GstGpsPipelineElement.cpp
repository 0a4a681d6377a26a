// Turns each epoch of the receiver's text into a buffer with its fix.
#include "Tavi/Gps/GstGpsPipelineElement.h"

#include <sstream>

#include "Tavi/GstUtil/Log.h"

namespace Tavi::Gps {

GstGpsPipelineElement::GstGpsPipelineElement(const GpsConfig& config)
    : m_path(config.path),
      m_buffers(GST_MEMORY_FLAG_ZERO_PREFIXED, config.rate, GstBufferDestroyedNotify),
      m_guard(Log::Tag, "a fix of the receiver is lost") {
  m_device.baud = config.baud;
  IThreadDelegate* self = this;
  m_device.Prepare(self);
}

GstGpsPipelineElement::~GstGpsPipelineElement() = default;

void GstGpsPipelineElement::Start() {
  m_buffers.Restart();
  if (!m_device.IsRunning()) m_device.path = m_path;
  m_device.Start();
  m_running = true;
}

void GstGpsPipelineElement::Stop() {
  m_running = false;
  m_device.Stop();
}

void GstGpsPipelineElement::Invoke(Kbase::Interfaces::IThread* /*thread*/, void* data) {
  m_guard.Run([this, data] {
    std::istringstream text(static_cast<const char*>(data));
    GPSDataPackage package;
    for (std::string line; std::getline(text, line);) {
      if (line.empty()) continue;
      package.AddText(line.data());
    }
    package.PostProcess();
    NoteTime(*package.GetData());
    SetFrame(BuildGstBuffer(package));
  });
}

void GstGpsPipelineElement::NoteTime(const GpsData& fix) {
  const auto arrival = m_device.GetEpochBegin();
  const auto utcMs = GPSDataPackage::GetUtcMs(fix);
  if (fix.isValidPackage == 0 || !arrival || !utcMs) return;
  const std::lock_guard lock(m_timeMutex);
  m_time = ReceiverTime{*utcMs, *arrival};
}

std::optional<ReceiverTime> GstGpsPipelineElement::ReadTime() const {
  const std::lock_guard lock(m_timeMutex);
  return m_time;
}

GstBuffer* GstGpsPipelineElement::BuildGstBuffer(GPSDataPackage& package) {
  return m_buffers.Wrap(package.ReleaseData().release());
}

void GstGpsPipelineElement::GstBufferDestroyedNotify(void* record) noexcept {
  delete static_cast<GpsData*>(record);
}

}  // namespace Tavi::Gps
