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

}  // namespace Ksystem::FileUtils
