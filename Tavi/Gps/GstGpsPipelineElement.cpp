// Turns each epoch of the receiver's text into a buffer with its fix.
#include "Tavi/Gps/GstGpsPipelineElement.h"

#include <algorithm>
#include <sstream>

namespace Tavi::Gps {

GstGpsPipelineElement::GstGpsPipelineElement(const GpsConfig& config) : m_rate(config.rate), m_path(config.path) {
  m_device.baud = config.baud;
  IThreadDelegate* self = this;
  m_device.Prepare(self);
}

GstGpsPipelineElement::~GstGpsPipelineElement() = default;

void GstGpsPipelineElement::Start() {
  m_timestamp = 0;
  if (!m_device.IsRunning()) m_device.path = m_path;
  m_device.Start();
  m_running = true;
}

void GstGpsPipelineElement::Stop() {
  m_running = false;
  m_device.Stop();
}

void GstGpsPipelineElement::Invoke(Kbase::Interfaces::IThread* /*thread*/, void* data) {
  std::istringstream text(static_cast<const char*>(data));
  GPSDataPackage package;
  for (std::string line; std::getline(text, line);) {
    if (line.empty()) continue;
    GPSLine sentence(line.data());
    package.AddLine(sentence);
  }
  package.PostProcess();
  SetFrame(BuildGstBuffer(package));
}

GstBuffer* GstGpsPipelineElement::BuildGstBuffer(GPSDataPackage& package) {
  GpsData* record = package.ReleaseData().release();
  if (record == nullptr) return nullptr;
  GstBuffer* buffer = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_ZERO_PREFIXED, record, sizeof(*record), 0,
                                                  sizeof(*record), record, GstBufferDestroyedNotify);
  GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale_int(1, GST_SECOND, std::max(m_rate, 1));
  GST_BUFFER_PTS(buffer) = m_timestamp.fetch_add(GST_BUFFER_DURATION(buffer));
  return buffer;
}

void GstGpsPipelineElement::GstBufferDestroyedNotify(void* record) {
  delete static_cast<GpsData*>(record);
}

}  // namespace Tavi::Gps
