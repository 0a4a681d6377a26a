// What every accelerometer has in common: blocks of native samples for a delegate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Kbase/Interfaces/IThread.h"
#include "Kdevice/ACC/IError.h"
#include "Kdevice/ACC/Mounting.h"

namespace Kdevice::ACC {

/// Of the lines that accelerometers log.
inline constexpr std::string_view LogTag = "Kdevice";

/// The full scale in g, either way.
enum class GForceScale : std::uint8_t { G2 = 2, G4 = 4, G8 = 8 };

/// What Invoke's data points to: `count` native bytes, two's complement, one axis after the other (X, Y, Z, X ...),
/// 128 / scale of them to one g. Borrowed for the call.
struct SampleBlock {
  const std::uint8_t* native = nullptr;
  std::uint64_t count = 0;
};

/// A thread that delivers blocks of ten samples, ten of them a second where the sensor is set to 100 Hz or resampled to
/// it. Whatever becomes of the sensor, it goes on, and takes up again what comes back.
class AccSource : public Kbase::Interfaces::IThread, public IError {
 public:
  static constexpr std::uint8_t BlockSamples = 10;
  static constexpr std::size_t BlockBytes = std::size_t{BlockSamples} * 3;

  /// Who receives each SampleBlock, on the device's thread. Called before Start; the delegate is borrowed and outlives
  /// the thread.
  void Prepare(IThreadDelegate*& delegate) { m_delegate = delegate; }
  /// How the blocks are turned. Called before Start.
  void SetMounting(const Mounting& mounting) { m_mounting = mounting; }

  /// The full scale of the blocks in g: 2, 4 or 8. Thread-safe.
  [[nodiscard]] unsigned char GetScale() const { return static_cast<unsigned char>(m_scale); }
  /// How often samples were found to be lost. Thread-safe.
  [[nodiscard]] virtual std::uint64_t GetOverflowCount() const = 0;

 protected:
  AccSource(std::string threadName, GForceScale scale)
      : IThread(std::move(threadName), OnFailure::GoOn), m_scale(scale) {}

  /// Turns the block in place and hands it on.
  void Deliver(std::span<std::uint8_t> native) {
    m_mounting.Turn(native);
    DeliverTurned(native);
  }
  void DeliverTurned(std::span<const std::uint8_t> native) {
    SampleBlock block{native.data(), native.size()};
    if (m_delegate != nullptr) m_delegate->Invoke(this, &block);
  }
  void DeliverEnd() {
    if (m_delegate != nullptr) m_delegate->InvokeStop(this);
  }
  [[nodiscard]] GForceScale GetForceScale() const { return m_scale; }
  [[nodiscard]] const Mounting& GetMounting() const { return m_mounting; }

 private:
  const GForceScale m_scale;
  Mounting m_mounting;
  IThreadDelegate* m_delegate = nullptr;
};

}  // namespace Kdevice::ACC
