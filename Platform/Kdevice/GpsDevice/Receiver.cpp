// The descriptor that a receiver's text is read from: a serial port, a FIFO, gpsd or a log file.
#include "Kdevice/GpsDevice/Receiver.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

namespace Kdevice::GpsDevice {
namespace {

struct Rate {
  std::int32_t baud;
  speed_t speed;
};
constexpr Rate Rates[] = {{1200, B1200},     {2400, B2400},     {4800, B4800},    {9600, B9600},
                          {19200, B19200},   {38400, B38400},   {57600, B57600},  {115200, B115200},
                          {230400, B230400}, {460800, B460800}, {921600, B921600}};

const Rate* FindRate(std::int32_t baud) {
  const auto* found = std::ranges::find(Rates, baud, &Rate::baud);
  return found == std::end(Rates) ? nullptr : found;
}

/// gpsd's assigned port (IANA, service "gpsd").
constexpr const char* GpsdPort = "2947";
/// The receivers' sentences as they came, and those that gpsd makes of binary ones; no reports of its own
/// (gpsd_json(5), WATCH).
constexpr std::string_view GpsdWatch = "?WATCH={\"enable\":true,\"nmea\":true,\"json\":false};\n";
constexpr std::chrono::milliseconds ConnectPatience{1000};

/// "host", "host:port", "[address]:port".
std::pair<std::string, std::string> SplitAddress(const std::string& address) {
  const auto bracket = address.starts_with('[') ? address.find(']') : std::string::npos;
  if (bracket != std::string::npos) {
    const bool hasPort = bracket + 1 < address.size() && address[bracket + 1] == ':';
    return {address.substr(1, bracket - 1), hasPort ? address.substr(bracket + 2) : GpsdPort};
  }
  const auto colon = address.rfind(':');
  if (colon == std::string::npos) return {address, GpsdPort};
  return {address.substr(0, colon), address.substr(colon + 1)};
}

/// 0 once the socket is connected, or errno.
int ConnectInTime(int socket, const addrinfo& to) {
  if (::connect(socket, to.ai_addr, to.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  pollfd watched{socket, POLLOUT, 0};
  if (::poll(&watched, 1, static_cast<int>(ConnectPatience.count())) <= 0) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof(error);
  return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

}  // namespace

bool Receiver::IsStandardRate(std::int32_t baud) {
  return FindRate(baud) != nullptr;
}

bool Receiver::Fail(const std::string& action, int error) {
  m_reason = action + ": " + std::strerror(error);
  Close();
  return false;
}

void Receiver::Close() {
  m_fd.Close();
  m_kind = Kind::None;
}

bool Receiver::Open(const std::string& path, std::int32_t baud) {
  m_path = path;
  if (IsGpsd(path)) return Connect(path.substr(GpsdScheme.size()));
  m_fd = Ksystem::FileUtils::UniqueFd::Open(path, O_RDONLY | O_NOCTTY | O_NONBLOCK);
  if (!m_fd.IsValid()) return Fail("cannot be opened", errno);
  struct stat attributes {};
  if (::fstat(m_fd.Get(), &attributes) != 0) return Fail("cannot be examined", errno);
  if (S_ISREG(attributes.st_mode)) {
    m_kind = Kind::File;
  } else if (S_ISFIFO(attributes.st_mode)) {
    m_kind = Kind::Fifo;
  } else {
    m_kind = Kind::Serial;
    return Configure(baud);
  }
  return true;
}

bool Receiver::Connect(const std::string& address) {
  const auto [host, port] = SplitAddress(address);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0) {
    m_reason = std::string("cannot be looked up: ") + ::gai_strerror(error);
    Close();
    return false;
  }
  int error = EADDRNOTAVAIL;
  for (const addrinfo* to = found; to != nullptr && error != 0; to = to->ai_next) {
    const int type = to->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK;
    m_fd = Ksystem::FileUtils::UniqueFd(::socket(to->ai_family, type, to->ai_protocol));
    error = m_fd.IsValid() ? ConnectInTime(m_fd.Get(), *to) : errno;
  }
  ::freeaddrinfo(found);
  if (error != 0) return Fail("cannot be reached", error);
  m_kind = Kind::Gpsd;
  const ssize_t sent = ::send(m_fd.Get(), GpsdWatch.data(), GpsdWatch.size(), MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(GpsdWatch.size()) || Fail("does not listen", sent < 0 ? errno : EIO);
}

bool Receiver::Configure(std::int32_t baud) {
  const Rate* rate = FindRate(baud);
  if (rate == nullptr) return Fail("cannot be set to " + std::to_string(baud) + " bits per second", EINVAL);
  termios settings{};
  if (::tcgetattr(m_fd.Get(), &settings) != 0) return Fail("is neither a serial port nor a FIFO nor a file", errno);
  ::cfmakeraw(&settings);
  settings.c_iflag &= ~static_cast<tcflag_t>(IXOFF | IXANY | INPCK);
  settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | CRTSCTS);
  settings.c_cflag |= CLOCAL | CREAD;
  // With a minimum of 0 a read of nothing could not be told from a hang-up.
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  termios now{};
  if (::cfsetspeed(&settings, rate->speed) != 0 || ::tcsetattr(m_fd.Get(), TCSANOW, &settings) != 0 ||
      ::tcgetattr(m_fd.Get(), &now) != 0) {
    return Fail("cannot be configured", errno);
  }
  // tcsetattr reports success when any one of the settings was taken.
  if (::cfgetispeed(&now) != rate->speed || (now.c_lflag & (ICANON | ECHO)) != 0) {
    return Fail("does not take " + std::to_string(baud) + " bits per second and raw mode", EIO);
  }
  return true;
}

Receiver::Event Receiver::Wait(int wakeFd, std::chrono::milliseconds timeout) {
  pollfd watched[] = {{m_fd.Get(), POLLIN, 0}, {wakeFd, POLLIN, 0}};
  if (::poll(watched, std::size(watched), static_cast<int>(timeout.count())) <= 0) return Event::Idle;
  // A FIFO that has had no writer yet reads as ended: only what poll reports may be read.
  if (watched[1].revents != 0 || watched[0].revents == 0) return Event::Idle;
  const ssize_t size = ::read(m_fd.Get(), m_buffer.data(), m_buffer.size());
  if (size > 0) {
    m_size = static_cast<std::size_t>(size);
    return Event::Data;
  }
  if (size < 0 && errno == EINTR) return Event::Idle;
  if (size < 0 && errno == EAGAIN && (watched[0].revents & (POLLHUP | POLLERR)) == 0) return Event::Idle;
  m_reason = size == 0 ? "has gone" : std::string("has gone: ") + std::strerror(errno);
  return Event::Gone;
}

bool Receiver::IsReplaced() const {
  struct stat opened {
  }, named{};
  // A name that is missing is no reason to give up what is open: udev removes and makes its links at will.
  if (::fstat(m_fd.Get(), &opened) != 0 || ::stat(m_path.c_str(), &named) != 0) return false;
  return opened.st_dev != named.st_dev || opened.st_ino != named.st_ino;
}

}  // namespace Kdevice::GpsDevice
