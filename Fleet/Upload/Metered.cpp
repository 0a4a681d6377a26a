// Whether the network costs by volume.
#include "Fleet/Upload/Metered.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>

namespace Tavi::Upload {
namespace {

constexpr std::uint64_t AnswerMicroseconds = 2'000'000;
constexpr std::chrono::seconds AskAgain{30};

/// NMMetered (NetworkManager D-Bus reference).
enum NetworkMetered : std::uint32_t { Unknown = 0, Yes = 1, No = 2, GuessYes = 3, GuessNo = 4 };

}  // namespace

std::optional<bool> AskNetworkManager() {
  sd_bus* opened = nullptr;
  if (sd_bus_open_system(&opened) < 0) return std::nullopt;
  const std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)> bus(opened, sd_bus_flush_close_unref);
  sd_bus_set_method_call_timeout(bus.get(), AnswerMicroseconds);
  std::uint32_t word = Unknown;
  const int done =
      sd_bus_get_property_trivial(bus.get(), "org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager",
                                  "org.freedesktop.NetworkManager", "Metered", nullptr, 'u', &word);
  if (done < 0 || word == Unknown || word > GuessNo) return std::nullopt;
  return word == Yes || word == GuessYes;
}

std::optional<bool> Metered::Get() {
  if (m_setting != "auto") return m_setting == "yes";
  const auto now = std::chrono::steady_clock::now();
  if (!m_askedAt || now - *m_askedAt >= AskAgain) {
    m_answer = AskNetworkManager();
    m_askedAt = now;
  }
  return m_answer;
}

}  // namespace Tavi::Upload
