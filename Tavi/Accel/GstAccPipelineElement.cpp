// The accelerometer as a source of media buffers.
#include "Tavi/Accel/GstAccPipelineElement.h"

#include <algorithm>
#include <array>
#include <span>

#include "Kbase/UtilAcc/UtilAcc.h"
#include "Kdevice/ACC/AccDevice.h"
#include "Kdevice/ACC/IioDevice.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Accel {

using Kdevice::ACC::AccDevice;
using Kdevice::ACC::AccSource;
using Kdevice::ACC::GForceScale;
using Kdevice::ACC::IioDevice;
using Kdevice::ACC::Mounting;
using Kdevice::ACC::OutputDataRate;
using Kdevice::ACC::SampleBlock;

namespace {

/// Values that each axis is averaged over: 0.61 s.
constexpr std::int32_t Window = 61;

GForceScale GetForceScale(std::int32_t scale) {
  if (scale == 2) return GForceScale::G2;
  return scale == 8 ? GForceScale::G8 : GForceScale::G4;
}

std::unique_ptr<AccSource> MakeDevice(const AccConfig& config) {
  const auto scale = GetForceScale(config.scale);
  std::unique_ptr<AccSource> device;
  if (config.device.empty()) {
    device = std::make_unique<AccDevice>(config.bus, static_cast<std::uint8_t>(config.address), scale,
                                         OutputDataRate::Hz100);
  } else {
    device = std::make_unique<IioDevice>(config.device, scale);
  }
  auto mounting = Mounting::Parse(config.axes);
  if (!mounting) Log::Error("accelerometer: \"" + config.axes + "\" is no order of its axes; they stay as they are");
  if (!mounting) mounting.emplace();
  mounting->SetRest(config.restSecondG, config.restThirdG);
  device->SetMounting(*mounting);
  return device;
}

}  // namespace

GstAccPipelineElement::GstAccPipelineElement(const AccConfig& config)
    : m_device(MakeDevice(config)),
      m_axisAverage1(Window),
      m_axisAverage2(Window),
      m_axisAverage3(Window),
      m_buffers(GST_MEMORY_FLAG_READONLY, config.rate, GstBufferDestroyedNotify),
      m_guard(Log::Tag, "a block of the accelerometer is lost") {
  IThreadDelegate* self = this;
  m_device->Prepare(self);
}

GstAccPipelineElement::~GstAccPipelineElement() {
  GstAccPipelineElement::Stop();
}

void GstAccPipelineElement::Start() {
  if (m_device->IsRunning()) return;
  m_buffers.Restart();
  m_running = m_device->Start();
}

void GstAccPipelineElement::Stop() {
  m_running = false;
  m_device->Stop();
  // No block came any more that a requested reset would have followed.
  if (m_resetPending.exchange(false)) ClearAverages();
}

void GstAccPipelineElement::Invoke(Kbase::Interfaces::IThread* /*thread*/, void* data) {
  if (data == nullptr) return;
  m_guard.Run(
      [this, data] { SetFrame(BuildGstBuffer(BuildRecord(*static_cast<const SampleBlock*>(data)).release())); });
  if (m_resetPending.exchange(false)) ClearAverages();
}

std::unique_ptr<AccDataPak> GstAccPipelineElement::BuildRecord(const SampleBlock& block) {
  auto record = std::make_unique<AccDataPak>();
  const std::size_t count = block.native == nullptr ? 0 : std::min<std::uint64_t>(block.count, AccDataPak::BlockBytes);
  std::copy_n(block.native, count, record->native.begin());
  const std::array averages{&m_axisAverage3, &m_axisAverage2, &m_axisAverage1};
  const unsigned char scale = m_device->GetScale();
  const std::span<float> g(record->g.data(), count);
  Kbase::UtilAcc::AccNativeToFloat({record->native.data(), count}, scale, g);
  for (std::size_t axis = 0; axis < std::min(averages.size(), count); ++axis) {
    averages[axis]->AddEach(g.subspan(axis), averages.size());
  }
  record->scale = scale;
  return record;
}

GstBuffer* GstAccPipelineElement::BuildGstBuffer(AccDataPak* record) {
  return m_buffers.Wrap(record);
}

void GstAccPipelineElement::GstBufferDestroyedNotify(void* data) noexcept {
  delete static_cast<AccDataPak*>(data);
}

void GstAccPipelineElement::ResetAverageBuffers() {
  if (m_running) {
    m_resetPending = true;
  } else {
    ClearAverages();
  }
}

void GstAccPipelineElement::ClearAverages() {
  m_axisAverage1.Clear();
  m_axisAverage2.Clear();
  m_axisAverage3.Clear();
}

}  // namespace Tavi::Accel
