// The console's settings.
#include "Fleet/Web/WebSettings.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include "EventStore/Storage.h"
#include "SettingsFile/SettingsFile.h"

namespace Tavi::Web {
namespace {

using SettingsFile::Allowed;
using SettingsFile::Range;

constexpr std::size_t MostPemBytes = 64 * 1024;
constexpr Range<int> AddressBytes{2, 45};
constexpr Range<int> HostsBytes{0, 1000};
/// 0: one that is free, for tests.
constexpr Range<int> Port{0, 65535};

bool IsAddress(const std::string& text) {
  in6_addr ignored{};
  return ::inet_pton(AF_INET, text.c_str(), &ignored) == 1 || ::inet_pton(AF_INET6, text.c_str(), &ignored) == 1;
}

bool ReadPem(const std::string& field, const std::string& path, std::string& text, std::string& problem) {
  if (path.empty() || EventStore::ReadSmallFile(path, MostPemBytes, text, problem)) return true;
  problem = fmt::format("field {}: {}", field, problem);
  return false;
}

}  // namespace

std::vector<SettingsFile::Field> DescribeFields(WebSettings& s) {
  std::vector<SettingsFile::Field> fields{
      {"address", &s.address, Allowed::Text(AddressBytes, IsAddress, "an IPv4 or IPv6 address"), "",
       "where the console listens; on another address than loopback only with a token"},
      {"port", &s.port, Port, "", "its TCP port; 0: one that is free"},
      {"hosts", &s.hosts, HostsBytes, "",
       "names by which people reach it, with commas between them, beside localhost and addresses"},
      {"controlSocket", &s.controlSocket, SettingsFile::SocketPathBytes, "", "path of the recorder's control socket"},
      {"eventsDir", &s.eventsDir, SettingsFile::OptionalPathBytes, "",
       "directory of all events; empty: where the recorder says"},
      {"tokenFile", &s.tokenFile, SettingsFile::OptionalPathBytes, "",
       "file with the token that people and programs log in with; empty: none"},
      {"certificateFile", &s.certificateFile, SettingsFile::OptionalPathBytes, "",
       "certificates (PEM), the console's own first, for HTTPS; empty: HTTP"},
      {"keyFile", &s.keyFile, SettingsFile::OptionalPathBytes, "", "the private key of it (PEM)"}};
  for (auto& field : DescribeRtspFields(s.rtsp, "rtsp.")) fields.push_back(std::move(field));
  return fields;
}

bool IsLoopback(const std::string& address) {
  in_addr four{};
  if (::inet_pton(AF_INET, address.c_str(), &four) == 1) return (ntohl(four.s_addr) >> 24) == 127;
  in6_addr six{};
  return ::inet_pton(AF_INET6, address.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

std::string CheckSettings(const WebSettings& settings) {
  WebSettings copy = settings;
  if (auto problem = SettingsFile::CheckFields(DescribeFields(copy)); !problem.empty()) return problem;
  if (!IsLoopback(settings.address) && settings.tokenFile.empty()) {
    return fmt::format(
        "field tokenFile: it is empty, and {} can be reached from elsewhere; a file with a token is right, or the "
        "address "
        "127.0.0.1",
        settings.address);
  }
  if (settings.certificateFile.empty() != settings.keyFile.empty()) {
    return fmt::format("field {}: it is empty; certificate and key are right together, or neither",
                       settings.keyFile.empty() ? "keyFile" : "certificateFile");
  }
  const std::string problem = CheckRtspSettings(settings.rtsp, "rtsp.");
  return problem.empty() ? problem : "field " + problem;
}

bool ReadFiles(const WebSettings& settings, GateSettings& gate, HttpSettings& http, std::string& problem) {
  gate.hosts = SplitHosts(settings.hosts);
  http.address = settings.address;
  http.port = settings.port;
  if (!settings.tokenFile.empty()) {
    const auto token = ReadToken(settings.tokenFile, problem);
    if (!token) {
      problem = "field tokenFile: " + problem;
      return false;
    }
    gate.token = *token;
  }
  return ReadPem("certificateFile", settings.certificateFile, http.certificate, problem) &&
         ReadPem("keyFile", settings.keyFile, http.key, problem);
}

}  // namespace Tavi::Web
