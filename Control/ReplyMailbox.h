// Where answers from any thread wait for the thread that sends them.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Recorder {

/// Owns an eventfd that wakes the server's poll(). Thread-safe. Shared by the server and every answer that is still to
/// come, so that it outlives both.
class ReplyMailbox {
 public:
  struct Letter {
    std::uint64_t connection = 0;
    std::string line;
    /// Who takes the client's socket once it has `line`; empty: it stays with the server.
    std::function<void(Ksystem::FileUtils::UniqueFd)> take = {};
    /// Instead of `line` for a client whose socket cannot be handed over.
    std::string refusal = {};
  };

  ReplyMailbox();

  /// Readable while there is something to do; -1, with errno set, when the system had none to give.
  [[nodiscard]] int GetFd() const { return m_wake.Get(); }
  /// Does nothing once closed.
  void Post(Letter letter);
  /// Makes the descriptor readable without a letter.
  void Wake();
  /// Everything posted so far; the descriptor is no longer readable.
  std::vector<Letter> Take();
  /// The same for the last time: what is posted from now on is dropped.
  std::vector<Letter> Close();

 private:
  const Ksystem::FileUtils::UniqueFd m_wake;
  /// Guards the members below.
  std::mutex m_mutex;
  std::vector<Letter> m_letters;
  bool m_closed = false;
};

}  // namespace Tavi::Recorder
