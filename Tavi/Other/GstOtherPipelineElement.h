// Samples the machine's state once a second.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <memory>

#include "Kbase/Util/EntryGuard.h"
#include "Kbase/Util/Timer.h"
#include "Tavi/GstUtil/RecordWrapper.h"
#include "Tavi/Other/OtherConfig.h"
#include "Tavi/Other/OtherDataPak.h"

namespace Tavi::Other {

/// Makes a buffer of each sample by hand; there is no GStreamer pipeline. Start and Stop belong to the controlling
/// thread, Tick and SetFrame run on the timer's. A subclass calls Stop in its destructor.
class GstOtherPipelineElement {
 public:
  explicit GstOtherPipelineElement(const OtherConfig& config);
  virtual ~GstOtherPipelineElement();

  /// Starts the timer; time stamps begin at 0 again, also while it runs already. The period is a second whatever the
  /// rate.
  void Start();
  void Stop();
  /// Receives one sample with one reference; null is ignored.
  virtual void SetFrame(GstBuffer* buffer) = 0;

  /// Makes one sample, unless there is no memory for it.
  void Tick(Kbase::Util::Timer* timer);
  /// Wraps the sample, which passes to the buffer, and stamps it: time stamps advance by one second over the rate.
  GstBuffer* BuildGstBuffer(OtherDataPak& sample);
  static void GstBufferDestroyedNotify(void* sample) noexcept;

  GstOtherPipelineElement(const GstOtherPipelineElement&) = delete;
  GstOtherPipelineElement& operator=(const GstOtherPipelineElement&) = delete;

 protected:
  [[nodiscard]] std::int32_t GetRate() const { return m_buffers.GetRate(); }

 private:
  GstUtil::RecordWrapper m_buffers;
  Kbase::Util::EntryGuard m_guard;
  std::unique_ptr<Kbase::Util::Timer> m_timer;
};

}  // namespace Tavi::Other
