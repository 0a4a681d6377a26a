// The descriptor that a receiver's text is read from: a serial port, a FIFO, gpsd or a log file.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Kdevice::GpsDevice {

/// Owns the descriptor. Nothing here blocks but Wait, which a second descriptor ends, and Open while gpsd's host is
/// looked up and answers: up to a second where it is given as an address. Thread-bound.
class Receiver {
 public:
  enum class Kind { None, Serial, Fifo, File, Gpsd };
  enum class Event {
    /// GetBytes() has what came.
    Data,
    /// Nothing came in time, or the wait was ended.
    Idle,
    /// The port has gone, or the FIFO's last writer; GetReason() tells.
    Gone
  };

  /// Opens `path`, never waiting for a FIFO's writer or a modem's carrier. A serial port, pseudo-terminals included, is
  /// set to raw bytes, 8N1, no flow control, `baud` bits per second. What was open before is closed after that, so that
  /// a FIFO never lacks a reader between two openings. "gpsd://HOST" and "gpsd://HOST:PORT", the port 2947 unless
  /// given, is the daemon there, which is asked for its receivers' sentences (gpsd_json(5), WATCH). False, with
  /// GetReason(), when it cannot be read.
  bool Open(const std::string& path, std::int32_t baud);
  void Close();

  /// Reads what is there, waiting up to `timeout` for it; cut short when `wakeFd` becomes readable.
  Event Wait(int wakeFd, std::chrono::milliseconds timeout);
  /// Of the last Event::Data, until the next Wait.
  [[nodiscard]] std::string_view GetBytes() const { return {m_buffer.data(), m_size}; }

  /// True when the path leads to something else by now: a FIFO that was made anew, a link to another port.
  [[nodiscard]] bool IsReplaced() const;
  [[nodiscard]] Kind GetKind() const { return m_kind; }
  [[nodiscard]] int GetFd() const { return m_fd.Get(); }
  /// Why the last Open failed or what the last Event::Gone was.
  [[nodiscard]] const std::string& GetReason() const { return m_reason; }

  /// True for the rates of POSIX and Linux from 1200 to 921600 bits per second.
  static bool IsStandardRate(std::int32_t baud);
  static constexpr std::string_view GpsdScheme = "gpsd://";
  /// The path stands for a daemon and no file.
  static bool IsGpsd(const std::string& path) { return path.starts_with(GpsdScheme); }

 private:
  bool Configure(std::int32_t baud);
  bool Connect(const std::string& address);
  bool Fail(const std::string& action, int error);

  std::string m_path;
  Ksystem::FileUtils::UniqueFd m_fd;
  Kind m_kind = Kind::None;
  std::string m_reason;
  std::array<char, 4096> m_buffer{};
  std::size_t m_size = 0;
};

}  // namespace Kdevice::GpsDevice
