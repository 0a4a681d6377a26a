// The listening socket in the file system, and its lock.
#include "Control/ControlSocket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Control/SocketAddress.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Recorder {

using Ksystem::FileUtils::UniqueFd;

namespace {

constexpr mode_t DirectoryMode = 0750;
constexpr mode_t SocketMode = 0660;
constexpr mode_t LockMode = 0600;
constexpr int Backlog = 128;

std::string Describe(const std::string& action, const std::string& path) {
  return fmt::format("no control socket: cannot {} {}: {}", action, path, std::strerror(errno));
}

/// Nobody can connect before listen(), so the mode is right by the time that it matters, and the process's umask, which
/// other threads create files under, is left alone.
bool Listen(int socketFd, const sockaddr_un& address) {
  return ::chmod(address.sun_path, SocketMode) == 0 && ::listen(socketFd, Backlog) == 0;
}

}  // namespace

ControlSocket::~ControlSocket() {
  // Before the lock is given back: behind that the path may be another process's.
  if (m_bound && ::unlink(m_path.c_str()) != 0 && errno != ENOENT) Log::Warning(Describe("remove", m_path));
}

void ControlSocket::GiveToGroup(const std::string& path) const {
  if (m_group && ::lchown(path.c_str(), static_cast<uid_t>(-1), *m_group) != 0) {
    Log::Warning(fmt::format("cannot give {} to the group that may command: {}", path, std::strerror(errno)));
  }
}

/// The umask may take bits away, hence the second step.
bool ControlSocket::CreateLevel(const std::string& directory) const {
  if (::mkdir(directory.c_str(), DirectoryMode) != 0 || ::chmod(directory.c_str(), DirectoryMode) != 0) return false;
  GiveToGroup(directory);
  return true;
}

/// Creates the directory and its missing parents; false with errno set. What was there already keeps its mode.
bool ControlSocket::CreateDirectory(const std::string& directory) const {
  if (directory.empty() || CreateLevel(directory)) return true;
  const auto parent = std::filesystem::path(directory).parent_path();
  if (errno == ENOENT && CreateDirectory(parent) && CreateLevel(directory)) return true;
  const int reason = errno;
  struct stat attributes {};
  if (::stat(directory.c_str(), &attributes) == 0 && S_ISDIR(attributes.st_mode)) return true;
  errno = reason;
  return false;
}

bool ControlSocket::Open(const std::string& path, std::string& problem) {
  m_path = path;
  const auto address = BuildSocketAddress(path, problem);
  if (!address) return false;
  const auto directory = std::filesystem::path(path).parent_path();
  if (!CreateDirectory(directory)) {
    problem = Describe("create the directory", directory);
    return false;
  }
  if (!Lock(problem) || !RemoveStale(problem)) return false;
  m_socket = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  m_bound =
      m_socket.IsValid() && ::bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) == 0;
  // The group before the mode: nobody's group is to reach it.
  if (m_bound) GiveToGroup(path);
  if (m_bound && Listen(m_socket.Get(), *address)) return true;
  problem = Describe("listen at", path);
  return false;
}

bool ControlSocket::Lock(std::string& problem) {
  const std::string path = m_path + ".lock";
  m_lock = UniqueFd::Open(path, O_RDWR | O_CREAT | O_NOFOLLOW, LockMode);
  if (m_lock.IsValid() && ::flock(m_lock.Get(), LOCK_EX | LOCK_NB) == 0) return true;
  problem = errno == EWOULDBLOCK
                ? fmt::format("another recorder listens at {}: stop it, or give this one another path", m_path)
                : Describe("lock", path);
  return false;
}

bool ControlSocket::RemoveStale(std::string& problem) const {
  struct stat attributes {};
  if (::lstat(m_path.c_str(), &attributes) != 0) {
    if (errno == ENOENT) return true;
    problem = Describe("look at", m_path);
    return false;
  }
  if (!S_ISSOCK(attributes.st_mode)) {
    problem = fmt::format("no control socket: {} is there and no socket: remove it, or give another path", m_path);
    return false;
  }
  if (::unlink(m_path.c_str()) == 0) return true;
  problem = Describe("remove the old socket", m_path);
  return false;
}

}  // namespace Tavi::Recorder
