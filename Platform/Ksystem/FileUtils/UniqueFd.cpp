// The owner of one file descriptor.
#include "Ksystem/FileUtils/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Ksystem::FileUtils {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    Close();
    m_fd = std::exchange(other.m_fd, -1);
  }
  return *this;
}

UniqueFd UniqueFd::Open(const std::string& path, int flags, unsigned int mode) {
  int fd = -1;
  do {
    fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return UniqueFd(fd);
}

bool UniqueFd::Close() {
  if (m_fd < 0) return true;
  return ::close(std::exchange(m_fd, -1)) == 0;
}

bool WriteAll(int fd, const void* data, std::size_t size) {
  const auto* next = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(fd, next, size);
    if (written < 0 && errno != EINTR) return false;
    if (written < 0) continue;
    next += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace Ksystem::FileUtils
