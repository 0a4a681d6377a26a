// Who may come in: the console's own pages and programs that know the token, and no other page in the same browser.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Fleet/Web/Http.h"

namespace Tavi::Web {

/// What a request asks for.
enum class Area {
  /// The look of the login page, and logging in: no token.
  Public,
  /// A page that one may come to by a link; without a token the login page follows.
  Page,
  /// Everything else.
  Api,
};

struct GateSettings {
  /// Empty: whoever reaches the address may come in.
  std::string token;
  /// Names, in lower case, by which people reach the console beside "localhost" and addresses.
  std::vector<std::string> hosts;
  /// How long whoever has a wrong token waits for being told so.
  std::chrono::milliseconds pauseAfterWrong{1000};
};

/// A page of somebody else, open in the same browser, can send requests here and, by a name of its own that leads to
/// this address, could read the answers. Hence: a name that is not ours is refused, so is what another site's page asks
/// for, and what changes something needs a header that only our own pages can set. Thread-safe.
class Gate {
 public:
  static constexpr std::string_view CookieName = "tavi-console";
  /// Its value does not matter.
  static constexpr std::string_view ConsoleHeader = "x-tavi-console";

  explicit Gate(GateSettings settings);

  /// The refusal; empty for a request that may pass. Waits when a token is wrong.
  [[nodiscard]] std::optional<Response> Check(const Request& request, Area area) const;
  /// Takes the token out of the body, `{"token":"..."}`, and gives a cookie for it. Waits when it is wrong.
  [[nodiscard]] Response LogIn(const Request& request) const;
  /// Takes the cookie away.
  [[nodiscard]] Response LogOut(const Request& request) const;
  [[nodiscard]] bool HasToken() const { return !m_settings.token.empty(); }

 private:
  [[nodiscard]] bool IsOwnHost(std::string_view host) const;
  [[nodiscard]] std::optional<Response> CheckOrigin(const Request& request, Area area) const;
  [[nodiscard]] std::optional<Response> CheckToken(const Request& request, Area area) const;
  /// The refusal of a wrong token, after a while; empty for the right one.
  [[nodiscard]] std::optional<Response> CheckWord(std::string_view word) const;
  [[nodiscard]] std::string BuildCookie(const Request& request, std::string_view value, int seconds) const;

  const GateSettings m_settings;
  /// What the cookie holds: of this process and this token only, and nobody can tell the token from it.
  const std::string m_pass;
  mutable std::atomic<int> m_waiting{0};
};

/// The content of a token file: at least 16 characters, printable, without blanks, in a file that nobody but its owner
/// and group may read. Empty, with one sentence in `problem`, when it is anything else.
std::optional<std::string> ReadToken(const std::string& path, std::string& problem);

/// "a, b" as a list in lower case.
std::vector<std::string> SplitHosts(std::string_view text);

}  // namespace Tavi::Web
