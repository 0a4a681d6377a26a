// The recorder behind its control socket, as the console asks it.
#pragma once

#include <chrono>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Tavi::Web {

/// A new connection for each request, so that a recorder that comes back is there at once. Thread-safe; blocks.
class RecorderLink {
 public:
  using Json = nlohmann::ordered_json;

  explicit RecorderLink(std::string controlSocket);

  struct Answer {
    /// The recorder's reply as it is.
    std::string text;
    /// Its "ok".
    bool isOk = false;
    /// Nobody has answered; `problem` says why.
    bool isAway = false;
    /// The recorder's "error" when it refuses.
    std::string problem;
  };
  [[nodiscard]] Answer Ask(const Json& request, std::chrono::milliseconds patience) const;

  /// The status, not older than half a second: however many ask, the recorder is asked twice a second.
  [[nodiscard]] Answer AskStatus();
  /// Where it keeps its events; what it said last while it is away, empty before.
  [[nodiscard]] std::string FindEventsDirectory();

 private:
  using Clock = std::chrono::steady_clock;
  const std::string m_controlSocket;
  /// Held while the recorder is asked for its status, which others then need not do.
  std::mutex m_mutex;
  Answer m_status;
  Clock::time_point m_askedAt;
  std::string m_eventsDirectory;
};

}  // namespace Tavi::Web
