// What is asked of the recorder.
#pragma once

#include <string>

namespace Tavi::Upload {

/// The recorder at a control socket. Each operation waits for its answer, half a minute at most. Reentrant.
class RecorderLink {
 public:
  explicit RecorderLink(std::string socketPath) : m_socketPath(std::move(socketPath)) {}

  /// Where it keeps its events; empty, with one sentence in `problem`, when it cannot be asked.
  std::string AskEventsDir(std::string& problem) const;
  /// Has it remove an event that nobody protects: it alone can note that in the chain. False, with one sentence in
  /// `problem`, when it does not.
  [[nodiscard]] bool Remove(const std::string& eventId, std::string& problem) const;

 private:
  const std::string m_socketPath;
};

}  // namespace Tavi::Upload
