// Who may come in.
#include "Fleet/Web/Gate.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <thread>

#include "EventStore/Sha256.h"
#include "EventStore/Storage.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Web {
namespace {

constexpr std::size_t LeastTokenCharacters = 16;
constexpr std::size_t MostTokenCharacters = 512;
/// Whoever guesses on many connections at once gets no more guesses, and leaves connections to others.
constexpr int MostWaiting = 8;
constexpr int CookieSeconds = 12 * 3600;

std::string Hash(std::string_view text) {
  EventStore::Sha256 hash;
  std::string digits = hash.Add(text.data(), text.size()) ? hash.Finish() : std::string();
  // Two texts without a hash would pass for the same.
  if (digits.empty()) throw std::runtime_error("no hash can be taken");
  return digits;
}

std::string MakePass(std::string_view token) {
  std::array<unsigned char, 32> secret{};
  if (RAND_bytes(secret.data(), static_cast<int>(secret.size())) != 1) throw std::runtime_error("no random bytes");
  return Hash(std::string(secret.begin(), secret.end()).append(token));
}

/// In a time that does not depend on where they differ.
bool IsSame(std::string_view a, std::string_view b) {
  const std::string hashA = Hash(a);
  const std::string hashB = Hash(b);
  return hashA.size() == hashB.size() && CRYPTO_memcmp(hashA.data(), hashB.data(), hashA.size()) == 0;
}

/// The value of the console's cookie in a header such as "a=1; tavi-console=2".
std::string_view FindCookie(std::string_view header) {
  while (!header.empty()) {
    const std::size_t end = std::min(header.find(';'), header.size());
    std::string_view one = header.substr(0, end);
    header.remove_prefix(std::min(end + 1, header.size()));
    one.remove_prefix(std::min(one.find_first_not_of(' '), one.size()));
    if (!one.starts_with(Gate::CookieName)) continue;
    one.remove_prefix(Gate::CookieName.size());
    if (one.starts_with('=')) return one.substr(1);
  }
  return {};
}

/// Without the port.
std::string_view GetName(std::string_view host) {
  if (host.starts_with('[')) return host.substr(0, std::min(host.find(']'), host.size() - 1) + 1);
  return host.substr(0, host.find(':'));
}

bool IsAddress(std::string_view name) {
  std::string text(name);
  in6_addr ignored{};
  if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
    return ::inet_pton(AF_INET6, text.substr(1, text.size() - 2).c_str(), &ignored) == 1;
  }
  return ::inet_pton(AF_INET, text.c_str(), &ignored) == 1;
}

bool Changes(const Request& request) {
  return request.method != "GET" && request.method != "HEAD";
}

std::string ReadTokenField(const std::string& body) {
  const auto json = Kbase::Json::Parse(body);
  const auto token = json.is_object() ? json.find("token") : json.end();
  return json.is_object() && token != json.end() && token->is_string() ? token->get<std::string>() : std::string();
}

}  // namespace

Gate::Gate(GateSettings settings) : m_settings(std::move(settings)), m_pass(MakePass(m_settings.token)) {}

std::optional<Response> Gate::Check(const Request& request, Area area) const {
  const auto host = request.GetHeader("host");
  if (!IsOwnHost(host)) {
    return Refuse(403, fmt::format("\"{}\" is no name of this console; \"hosts\" in its settings names those that are",
                                   ToHeaderText(host)));
  }
  if (auto refusal = CheckOrigin(request, area)) return refusal;
  return area == Area::Public ? std::nullopt : CheckToken(request, area);
}

/// An address cannot be made to lead elsewhere by whoever owns a name.
bool Gate::IsOwnHost(std::string_view host) const {
  const std::string name = ToLower(GetName(host));
  return name == "localhost" || IsAddress(name) || std::ranges::find(m_settings.hosts, name) != m_settings.hosts.end();
}

std::optional<Response> Gate::CheckOrigin(const Request& request, Area area) const {
  const auto site = request.GetHeader("sec-fetch-site");
  const bool isOwn = site.empty() || site == "same-origin" || site == "none";
  const bool isLink = area == Area::Page && !Changes(request) && request.GetHeader("sec-fetch-mode") == "navigate" &&
                      request.GetHeader("sec-fetch-dest") == "document";
  if (!isOwn && !isLink) return Refuse(403, "another site's page has asked for this; only the console's own may");
  const auto origin = request.GetHeader("origin");
  const std::string own = (request.isEncrypted ? "https://" : "http://") + std::string(request.GetHeader("host"));
  if (!origin.empty() && origin != own) {
    return Refuse(403, "another site's page has asked for this; only the console's own may");
  }
  if (!Changes(request) || request.headers.contains(ConsoleHeader)) return std::nullopt;
  return Refuse(403, "a request that changes something needs the header X-Tavi-Console; any value will do");
}

std::optional<Response> Gate::CheckToken(const Request& request, Area area) const {
  constexpr std::string_view Bearer = "Bearer ";
  if (!HasToken()) return std::nullopt;
  const auto authorization = request.GetHeader("authorization");
  if (authorization.starts_with(Bearer)) {
    return CheckWord(authorization.substr(Bearer.size()));
  }
  if (IsSame(FindCookie(request.GetHeader("cookie")), m_pass)) return std::nullopt;
  if (area == Area::Page) {
    Response response;
    response.status = 303;
    response.headers = {{"Location", "/login"}, {"Cache-Control", "no-store"}};
    return response;
  }
  auto refusal = Refuse(401, "this console wants a token: log in, or send it as Authorization: Bearer");
  refusal.headers.emplace_back("WWW-Authenticate", "Bearer");
  return refusal;
}

std::optional<Response> Gate::CheckWord(std::string_view word) const {
  // Before it is compared: an answer at once would be a guess for nothing.
  if (m_waiting >= MostWaiting) return Refuse(429, "too many wrong tokens; try again in a moment");
  if (IsSame(word, m_settings.token)) return std::nullopt;
  ++m_waiting;
  std::this_thread::sleep_for(m_settings.pauseAfterWrong);
  --m_waiting;
  return Refuse(401, "the token is wrong");
}

std::string Gate::BuildCookie(const Request& request, std::string_view value, int seconds) const {
  return fmt::format("{}={}; Path=/; Max-Age={}; HttpOnly; SameSite=Strict{}", CookieName, value, seconds,
                     request.isEncrypted ? "; Secure" : "");
}

Response Gate::LogIn(const Request& request) const {
  if (!HasToken()) return AnswerJson("{}");
  if (auto refusal = CheckWord(ReadTokenField(request.body))) return std::move(*refusal);
  auto response = AnswerJson("{}");
  response.headers.emplace_back("Set-Cookie", BuildCookie(request, m_pass, CookieSeconds));
  return response;
}

Response Gate::LogOut(const Request& request) const {
  auto response = AnswerJson("{}");
  response.headers.emplace_back("Set-Cookie", BuildCookie(request, "", 0));
  return response;
}

std::optional<std::string> ReadToken(const std::string& path, std::string& problem) {
  struct stat attributes {};
  std::string text;
  if (!EventStore::ReadSmallFile(path, MostTokenCharacters + 2, text, problem)) return std::nullopt;
  if (::stat(path.c_str(), &attributes) != 0 || (attributes.st_mode & (S_IROTH | S_IWOTH)) != 0) {
    problem = fmt::format("{} may be read by everybody; mode 0640 is right", path);
    return std::nullopt;
  }
  const std::string_view token = std::string_view(text).substr(0, text.find_last_not_of("\r\n") + 1);
  const bool isPlain = std::ranges::all_of(token, [](char c) { return c > 0x20 && c < 0x7F; });
  if (isPlain && token.size() >= LeastTokenCharacters && token.size() <= MostTokenCharacters) return std::string(token);
  problem = fmt::format("{} holds no token: one line of {} to {} printable characters without blanks is right", path,
                        LeastTokenCharacters, MostTokenCharacters);
  return std::nullopt;
}

std::vector<std::string> SplitHosts(std::string_view text) {
  std::vector<std::string> hosts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find_first_of(", "), text.size());
    if (end != 0) hosts.push_back(ToLower(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return hosts;
}

}  // namespace Tavi::Web
