// The accelerometer as a source of media buffers.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "Kbase/Interfaces/IThread.h"
#include "Kbase/Util/EntryGuard.h"
#include "Kbase/Util/MovingAverage.h"
#include "Kdevice/ACC/AccSource.h"
#include "Tavi/Accel/AccConfig.h"
#include "Tavi/Accel/AccDataPak.h"
#include "Tavi/GstUtil/RecordWrapper.h"

namespace Tavi::Accel {

/// Owns the device and takes its blocks: converts them to g, smooths each axis and hands each block on as one buffer.
///
/// Start and Stop are called by the owner's thread, Invoke by the device's; ResetAverageBuffers is thread-safe. A
/// subclass calls Stop in its destructor, while its SetFrame still exists.
class GstAccPipelineElement : public Kbase::Interfaces::IThread::IThreadDelegate {
 public:
  explicit GstAccPipelineElement(const AccConfig& config);
  ~GstAccPipelineElement() override;

  /// `data` is a Kdevice::ACC::SampleBlock; bytes beyond the thirtieth are left out. An empty block is one buffer too.
  void Invoke(Kbase::Interfaces::IThread* thread, void* data) override;
  /// Takes over the reference to `buffer`, which may be null. Called on the device's thread.
  virtual void SetFrame(GstBuffer* buffer) = 0;

  /// Time stamps begin at 0 with each Start. Nothing happens while it runs.
  void Start();
  void Stop();

  /// Transfers that failed, and how often the chip lost samples, since the element was made. Thread-safe.
  [[nodiscard]] std::uint64_t GetBusErrorCount() const { return m_device->GetErrorCount(); }
  [[nodiscard]] std::uint64_t GetOverflowCount() const { return m_device->GetOverflowCount(); }

  /// Empties the three averages: at once, or behind the next block while the device runs, so that no block is averaged
  /// half with old values.
  void ResetAverageBuffers();

  GstAccPipelineElement(const GstAccPipelineElement&) = delete;
  GstAccPipelineElement& operator=(const GstAccPipelineElement&) = delete;

 protected:
  /// Blocks a second.
  [[nodiscard]] std::int32_t GetRate() const { return m_buffers.GetRate(); }

 private:
  [[nodiscard]] std::unique_ptr<AccDataPak> BuildRecord(const Kdevice::ACC::SampleBlock& block);
  /// Wraps `record`, which is the buffer's from then on, without copying it.
  GstBuffer* BuildGstBuffer(AccDataPak* record);
  static void GstBufferDestroyedNotify(void* data) noexcept;
  void ClearAverages();

  const std::unique_ptr<Kdevice::ACC::AccSource> m_device;
  Kbase::Util::MovingAverage<float> m_axisAverage1;
  Kbase::Util::MovingAverage<float> m_axisAverage2;
  Kbase::Util::MovingAverage<float> m_axisAverage3;
  std::atomic<bool> m_running{false};
  std::atomic<bool> m_resetPending{false};
  GstUtil::RecordWrapper m_buffers;
  Kbase::Util::EntryGuard m_guard;
};

}  // namespace Tavi::Accel
