// Whether the network costs by volume.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace Tavi::Upload {

/// What NetworkManager says of the network that the machine is on (its property Metered, over the system's bus); a
/// guess of its counts as its word. Empty when it knows nothing, does not run, or does not answer within two seconds.
std::optional<bool> AskNetworkManager();

/// The setting, or what NetworkManager says, asked once in half a minute. Thread-bound.
class Metered {
 public:
  /// auto, yes or no.
  explicit Metered(std::string setting) : m_setting(std::move(setting)) {}

  /// Empty: nobody knows, which counts as not metered.
  std::optional<bool> Get();

 private:
  const std::string m_setting;
  std::optional<std::chrono::steady_clock::time_point> m_askedAt;
  std::optional<bool> m_answer;
};

}  // namespace Tavi::Upload
