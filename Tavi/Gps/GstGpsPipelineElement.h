// Turns each epoch of the receiver's text into a buffer with its fix.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "Kbase/Util/EntryGuard.h"
#include "Kdevice/GpsDevice/GpsDevice.h"
#include "Tavi/Gps/GPSDataPackage.h"
#include "Tavi/Gps/GpsConfig.h"
#include "Tavi/GstUtil/RecordWrapper.h"

namespace Tavi::Gps {

/// What the receiver's clock showed, and when.
struct ReceiverTime {
  /// UTC of a valid fix, Unix time in milliseconds.
  std::int64_t utcMs = 0;
  /// When its text began to come, by the monotonic clock: later than the fix by what the receiver takes to send, mostly
  /// 0.05 to 0.5 s.
  std::chrono::steady_clock::time_point arrival;
};

/// Owns the receiver device and is its delegate. Start and Stop belong to the controlling thread; Invoke and SetFrame
/// run on the device's. A subclass calls Stop in its destructor.
class GstGpsPipelineElement : public Kbase::Interfaces::IThread::IThreadDelegate {
 public:
  explicit GstGpsPipelineElement(const GpsConfig& config);
  ~GstGpsPipelineElement() override;

  /// Starts the device; time stamps begin at 0 again.
  void Start();
  void Stop();
  /// One epoch: `data` is its NUL-terminated text, borrowed. Always makes one buffer, valid fix or not, unless
  /// there is no memory for it.
  void Invoke(Kbase::Interfaces::IThread* thread, void* data) override;
  /// Receives one fix with one reference; null is ignored.
  virtual void SetFrame(GstBuffer* buffer) = 0;

  /// Wraps the package's record, which passes to the buffer, and stamps it: time stamps advance by one second over the
  /// rate. Null when the package has no record any more.
  GstBuffer* BuildGstBuffer(GPSDataPackage& package);
  static void GstBufferDestroyedNotify(void* record) noexcept;

  /// Of the newest valid fix; empty before the first, and with a log that is replayed. Thread-safe.
  [[nodiscard]] std::optional<ReceiverTime> ReadTime() const;

  GstGpsPipelineElement(const GstGpsPipelineElement&) = delete;
  GstGpsPipelineElement& operator=(const GstGpsPipelineElement&) = delete;

 protected:
  [[nodiscard]] std::int32_t GetRate() const { return m_buffers.GetRate(); }

 private:
  void NoteTime(const GpsData& fix);

  Kdevice::GpsDevice::GpsDevice m_device;
  std::atomic<bool> m_running{false};
  std::string m_path;
  GstUtil::RecordWrapper m_buffers;
  mutable std::mutex m_timeMutex;
  std::optional<ReceiverTime> m_time;
  Kbase::Util::EntryGuard m_guard;
};

}  // namespace Tavi::Gps
