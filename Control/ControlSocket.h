// The listening socket in the file system, and the lock that tells a running recorder from a dead one's socket.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Recorder {

/// Owns the socket file and the lock beside it (the path with ".lock"). Thread-bound. The destructor removes the
/// socket; the lock file stays, empty, because removing it could give two processes a lock each.
class ControlSocket {
 public:
  ControlSocket() = default;
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  /// The group of the socket and of the directories that Open makes; without one it is the process's own.
  void ShareWith(gid_t group) { m_group = group; }

  /// Creates missing directories (mode 0750), removes a socket that a crash has left, and listens at `path` (mode 0660,
  /// whatever the umask). A group that the process may not give away is logged, and the socket keeps its own. False,
  /// with one sentence in `problem`, when the path is too long, when another process listens there, when something else
  /// than a socket is in the way, or when the system refuses. Call it once.
  [[nodiscard]] bool Open(const std::string& path, std::string& problem);

  /// Non-blocking.
  [[nodiscard]] int GetFd() const { return m_socket.Get(); }

 private:
  bool Lock(std::string& problem);
  bool RemoveStale(std::string& problem) const;
  [[nodiscard]] bool CreateDirectory(const std::string& directory) const;
  [[nodiscard]] bool CreateLevel(const std::string& directory) const;
  void GiveToGroup(const std::string& path) const;

  std::string m_path;
  std::optional<gid_t> m_group;
  Ksystem::FileUtils::UniqueFd m_lock;
  Ksystem::FileUtils::UniqueFd m_socket;
  bool m_bound = false;
};

}  // namespace Tavi::Recorder
