// The GPS receiver: reads its text and hands it on epoch by epoch.
#pragma once

#include <cstdint>
#include <string>

#include "Kbase/Interfaces/IThread.h"

namespace Kdevice::GpsDevice {

class GpsDevice : public Kbase::Interfaces::IThread {
 public:
  /// Used where `path` is empty: the name that udev rules commonly give the receiver's port.
  static constexpr const char* DefaultPath = "/dev/gps0";

  GpsDevice();
  ~GpsDevice() override;

  /// Who receives each epoch as a NUL-terminated text (`char*`, borrowed for the call), on the device's thread. Called
  /// before Start; the delegate is borrowed and outlives the thread.
  void Prepare(IThreadDelegate*& delegate);

  /// Set before Start: a serial port, a pseudo-terminal, a FIFO, or a log file, which is replayed.
  std::string path;
  /// Bits per second of a serial port.
  std::int32_t baud = 9600;

 protected:
  void Run() override;
};

}  // namespace Kdevice::GpsDevice
