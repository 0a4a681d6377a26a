// What can be chosen of the RTSP server.
#include "Fleet/Web/Rtsp/RtspSettings.h"

#include <arpa/inet.h>

#include <array>

namespace Tavi::Web {
namespace {

using SettingsFile::Allowed;
using SettingsFile::Range;

constexpr Range<int> AddressBytes{1, 45};
constexpr Range<int> PathBytes{0, 4095};
constexpr Range<std::int32_t> Ports{1, 65535};
constexpr std::string_view AddressForm = "an IPv4 or IPv6 address";
constexpr std::uint32_t Loopback = 127;
constexpr int HostBits = 24;

bool IsAddress(const std::string& text) {
  std::array<unsigned char, sizeof(in6_addr)> bytes{};
  return ::inet_pton(AF_INET, text.c_str(), bytes.data()) == 1 ||
         ::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1;
}

bool IsLoopback(const std::string& text) {
  in_addr four{};
  if (::inet_pton(AF_INET, text.c_str(), &four) == 1) return ntohl(four.s_addr) >> HostBits == Loopback;
  in6_addr six{};
  return ::inet_pton(AF_INET6, text.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

}  // namespace

std::vector<SettingsFile::Field> DescribeRtspFields(RtspSettings& settings, const std::string& prefix) {
  return {
      {prefix + "enabled", &settings.enabled, Allowed(), "", "serve the cameras over RTSP"},
      {prefix + "address", &settings.address, Allowed::Text(AddressBytes, IsAddress, AddressForm), "",
       "where RTSP listens; on another address than loopback's only with `credentialsFile`"},
      {prefix + "port", &settings.port, Ports, "", "its TCP port"},
      {prefix + "credentialsFile", &settings.credentialsFile, PathBytes, "",
       "a file with one line \"user:password\" that nobody else may read, asked of every client; empty for none"},
  };
}

std::string CheckRtspSettings(const RtspSettings& settings, const std::string& prefix) {
  if (!settings.enabled || IsLoopback(settings.address) || !settings.credentialsFile.empty()) return {};
  return prefix + "address: " + settings.address + " can be reached by others; name a " + prefix +
         "credentialsFile or listen at 127.0.0.1";
}

}  // namespace Tavi::Web
