// The GPS receiver: reads its text and hands it on epoch by epoch.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "Kbase/Interfaces/IThread.h"
#include "Kdevice/GpsDevice/EpochSplitter.h"
#include "Kdevice/GpsDevice/Receiver.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Kdevice::GpsDevice {

/// The thread "GPS". Once started it reads until it is stopped, whatever becomes of the port: one that is missing or
/// goes away is tried again every second, with one line in the log when it goes and one when it sends again. A FIFO may
/// change its writer. A log file is replayed once; then the thread idles.
///
/// Each epoch that has an RMC sentence gives one call of the delegate, see EpochSplitter. Stop cuts every wait short;
/// what is left of the present epoch is not delivered then.
class GpsDevice : public Kbase::Interfaces::IThread {
 public:
  /// Used where `path` is empty: the name that udev rules commonly give the receiver's port.
  static constexpr const char* DefaultPath = "/dev/gps0";
  /// Used where `baud` is no standard rate: the rate that NMEA receivers come with.
  static constexpr std::int32_t DefaultBaud = 9600;

  GpsDevice();
  ~GpsDevice() override;

  /// Who receives each epoch as a NUL-terminated text (`char*`, borrowed for the call), on the device's thread. Called
  /// before Start; the delegate is borrowed and outlives the thread.
  void Prepare(IThreadDelegate*& delegate);

  /// When the epoch that the delegate is called with began to come. Empty for a log that is replayed, whose time is not
  /// that of now. For the delegate, within its call.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> GetEpochBegin() const { return m_epochBegin; }

  /// Set before Start: a serial port, a pseudo-terminal, a FIFO, a daemon ("gpsd://HOST:PORT"), or a log file, which is
  /// replayed.
  std::string path;
  /// Bits per second of a serial port: one of the standard rates from 1200 to 921600.
  std::int32_t baud = DefaultBaud;
  /// How many times faster than its own time stamps a log file is replayed.
  std::int32_t replaySpeed = 1;

 protected:
  void RunBefore() override;
  void Run() override;
  void RunAfter() override;
  void Stopping() override;

 private:
  std::string Listen();
  void Replay();
  void Hear(std::chrono::milliseconds now);
  void Rest(std::chrono::milliseconds quiet);
  void Lose(const std::string& reason);
  void Deliver(const EpochSplitter::Epoch& epoch);
  void ReportLosses(const EpochSplitter::Losses& losses);

  IThreadDelegate* m_delegate = nullptr;
  /// An eventfd; readable from Stopping on.
  Ksystem::FileUtils::UniqueFd m_wake;
  Receiver m_receiver;
  EpochSplitter m_splitter;
  std::optional<std::chrono::steady_clock::time_point> m_epochBegin;
  /// What `path` and `baud` come to.
  std::string m_source;
  std::int32_t m_baud = DefaultBaud;
  /// Set while nothing comes and the log knows.
  bool m_lost = false;
  /// Bytes since the last epoch.
  std::uint64_t m_fruitlessBytes = 0;
  bool m_toldFruitless = false;
};

}  // namespace Kdevice::GpsDevice
