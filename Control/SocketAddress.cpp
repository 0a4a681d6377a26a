// The address of a Unix socket that has a path.
#include "Control/SocketAddress.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <cstring>

namespace Tavi::Recorder {

std::optional<sockaddr_un> BuildSocketAddress(const std::string& path, std::string& problem) {
  sockaddr_un address{};
  constexpr std::size_t MaxPathBytes = sizeof(address.sun_path) - 1;
  if (path.empty() || path.size() > MaxPathBytes) {
    problem = fmt::format("the path of the control socket, \"{}\", has {} bytes; give one of 1 to {} bytes", path,
                          path.size(), MaxPathBytes);
    return std::nullopt;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

}  // namespace Tavi::Recorder
