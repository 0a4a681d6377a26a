// The cameras with their sound over RTSP.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Fleet/Web/Rtsp/RtspSettings.h"

namespace Tavi::Web {

class LiveHub;

/// Serves rtsp://ADDRESS:PORT/camera0 and /camera1, and both under the cameras' own names, each with the sound, as
/// encoded. Its thread is "RTSP"; it ends with this object. The hub outlives it and is used only while somebody plays.
class RtspServer {
 public:
  /// Null, with one line in `problem`, when it cannot listen, the credentials cannot be read, or there are none and the
  /// address is not loopback's.
  static std::unique_ptr<RtspServer> Start(const RtspSettings& settings, LiveHub& hub, std::string& problem);
  virtual ~RtspServer() = default;

  /// The port that it listens at: the settings', or the one that the system gave for 0.
  [[nodiscard]] virtual int GetPort() const = 0;
  /// Connections of clients, whatever they are doing. Thread-safe.
  [[nodiscard]] virtual std::size_t CountClients() const = 0;
};

}  // namespace Tavi::Web
