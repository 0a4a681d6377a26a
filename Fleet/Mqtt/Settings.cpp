// What tavi-mqtt can be told.
#include "Fleet/Mqtt/Settings.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "Ksystem/FileUtils/UniqueFd.h"
#include "SettingsFile/Range.h"
#include "SettingsFile/SettingsFile.h"

namespace Tavi::Mqtt {
namespace {

using Ksystem::FileUtils::UniqueFd;
using SettingsFile::Allowed;
using SettingsFile::Field;
using SettingsFile::Range;

/// A DNS name (RFC 1035), and a name as a broker takes it.
constexpr Range<int> HostBytes{0, 253};
constexpr Range<int> UnitBytes{0, 64};
constexpr Range<int> NameBytes{0, 128};
constexpr Range<int> PrefixBytes{1, 128};
constexpr Range<int> KeepAliveSeconds{10, 3600};
constexpr Range<int> PauseSeconds{1, 3600};
constexpr Range<int> HealthSeconds{1, 86400};
constexpr std::array<std::string_view, 2> Protocols{"5", "3.1.1"};
constexpr std::size_t LongestPassword = 65535;

constexpr std::string_view UnitForm = "up to 64 of A-Z, a-z, 0-9, - and _, or empty";
constexpr std::string_view PrefixForm = "names of A-Z, a-z, 0-9, - and _ with / between them";

bool IsNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool IsUnit(const std::string& text) {
  return std::ranges::all_of(text, IsNameCharacter);
}

/// No wildcard, no empty level, nothing of the broker's own.
bool IsPrefix(const std::string& text) {
  const bool isPlain = std::ranges::all_of(text, [](char c) { return c == '/' || IsNameCharacter(c); });
  return isPlain && !text.starts_with('/') && !text.ends_with('/') && text.find("//") == std::string::npos;
}

void AddBroker(std::vector<Field>& fields, Settings& s) {
  auto& broker = s.broker;
  auto& tls = s.tls;
  fields.insert(fields.end(),
                {{"broker.host", &broker.host, HostBytes, "",
                  "the broker's name or address; without one the program does not start"},
                 {"broker.port", &broker.port, Range<int>{1, 65535}, "", "its TCP port; usually 8883 with TLS"},
                 {"broker.protocol", &broker.protocol, Protocols, "",
                  "version of MQTT; 3.1.1 cannot tell that a broker threw a message away"},
                 {"broker.clientId", &broker.clientId, NameBytes, "",
                  "no two clients of a broker may have the same; empty: `tavi-mqtt-` and the unit's name"},
                 {"broker.user", &broker.user, NameBytes, "", "empty: without"},
                 {"broker.passwordFile", &broker.passwordFile, SettingsFile::OptionalPathBytes, "",
                  "a file, mode 0600, whose first line is the password"},
                 {"broker.keepAliveSeconds", &broker.keepAliveSeconds, KeepAliveSeconds, "s",
                  "one and a half times as long a silence is an end, and the broker says `offline`"},
                 {"broker.longestPauseSeconds", &broker.longestPauseSeconds, PauseSeconds, "s",
                  "pauses between two tries to connect grow up to this"},
                 {"tls.enabled", &tls.enabled, {}, "", "encrypt, and check the broker's certificate and name"},
                 {"tls.caFile", &tls.caFile, SettingsFile::OptionalPathBytes, "",
                  "certificates (PEM) that the broker's is to be signed by; empty: those that this machine trusts"},
                 {"tls.certificateFile", &tls.certificateFile, SettingsFile::OptionalPathBytes, "",
                  "the unit's own certificate (PEM); empty: without"},
                 {"tls.keyFile", &tls.keyFile, SettingsFile::OptionalPathBytes, "",
                  "its key (PEM), mode 0600, without a pass phrase"}});
}

std::vector<Field> DescribeFields(Settings& s) {
  std::vector<Field> fields;
  AddBroker(fields, s);
  fields.insert(
      fields.end(),
      {{"unit", &s.unit, Allowed::Text(UnitBytes, IsUnit, UnitForm), "",
        "the unit's name in all topics; empty: the machine's, up to its first dot"},
       {"topicPrefix", &s.topicPrefix, Allowed::Text(PrefixBytes, IsPrefix, PrefixForm), "",
        "what all topics begin with"},
       {"healthSeconds", &s.healthSeconds, HealthSeconds, "s", "from one message of health to the next"},
       {"discovery", &s.discovery, {}, "", "tell dashboards what there is"},
       {"discoveryPrefix", &s.discoveryPrefix, Allowed::Text(PrefixBytes, IsPrefix, PrefixForm), "",
        "where dashboards look for that"},
       {"eventsDir", &s.eventsDir, SettingsFile::OptionalPathBytes, "",
        "complete events, a directory each; empty: where the running recorder keeps them"},
       {"earlierEvents", &s.earlierEvents, {}, "", "at the first start publish the events that are there already, too"},
       {"controlSocket", &s.controlSocket, SettingsFile::SocketPathBytes, "", "where the recorder takes commands"},
       {"stateFile", &s.stateFile, SettingsFile::PathBytes, "", "which events the broker has acknowledged"}});
  return fields;
}

std::string GetMachineName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return {};
  const std::string text = name.data();
  return text.substr(0, text.find('.'));
}

std::string CheckTls(const Settings& s) {
  const auto& tls = s.tls;
  if (tls.certificateFile.empty() != tls.keyFile.empty()) {
    const char* present = tls.keyFile.empty() ? "certificateFile" : "keyFile";
    const char* absent = tls.keyFile.empty() ? "keyFile" : "certificateFile";
    return fmt::format("field tls.{}: empty beside tls.{}; give both or none", absent, present);
  }
  const bool hasFiles = !tls.caFile.empty() || !tls.keyFile.empty();
  if (hasFiles && !tls.enabled) return "field tls.enabled: false beside files for it; true is right, or no files";
  return {};
}

std::string CheckUnit(const std::string& unit) {
  if (!unit.empty() && unit != "localhost" && IsUnit(unit)) return {};
  return fmt::format("field unit: the machine's name is \"{}\", which is no unit's; give {}", unit,
                     "each unit one of its own, of A-Z, a-z, 0-9, - and _");
}

/// For its owner alone: whoever reads it is the unit.
std::string ReadSecretFile(const char* field, const std::string& path, std::string& text) {
  const auto refuse = [&](const std::string& why) { return fmt::format("field {}: \"{}\" {}", field, path, why); };
  const UniqueFd file = UniqueFd::Open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  struct stat status {};
  if (!file.IsValid() || ::fstat(file.Get(), &status) != 0) {
    return refuse(fmt::format("cannot be read ({})", std::strerror(errno)));
  }
  if (!S_ISREG(status.st_mode)) return refuse("is no regular file, one is right");
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return refuse(fmt::format("has mode {:04o}, others may read it; 0600 is right", status.st_mode & 07777U));
  }
  text.resize(LongestPassword + 1);
  const ssize_t got = ::read(file.Get(), text.data(), text.size());
  if (got < 0) return refuse(fmt::format("cannot be read ({})", std::strerror(errno)));
  text.resize(static_cast<std::size_t>(got));
  return {};
}

std::string ReadPassword(const std::string& path, std::string& password) {
  std::string problem = ReadSecretFile("broker.passwordFile", path, password);
  if (!problem.empty()) return problem;
  password.resize(std::min(password.find_first_of("\r\n"), password.size()));
  if (!password.empty() && password.size() <= LongestPassword) return {};
  return fmt::format(
      "field broker.passwordFile: \"{}\" has no password in its first line; one of 1 to {} bytes is right", path,
      LongestPassword);
}

}  // namespace

bool LoadSettings(const std::string& path, Settings& settings, std::string& problem) {
  Settings loaded;
  if (!SettingsFile::LoadFields(path, DescribeFields(loaded), problem)) return false;
  settings = std::move(loaded);
  return true;
}

void CompleteSettings(Settings& settings) {
  if (settings.unit.empty()) settings.unit = GetMachineName();
  if (settings.broker.clientId.empty()) settings.broker.clientId = "tavi-mqtt-" + settings.unit;
}

std::string CheckSettings(const Settings& settings) {
  Settings copy = settings;
  std::string problem = CheckUnit(settings.unit);
  if (problem.empty()) problem = SettingsFile::CheckFields(DescribeFields(copy));
  if (!problem.empty()) return problem;
  if (settings.broker.host.empty()) {
    return "field broker.host: empty; give the broker's name or address, nothing is published without one";
  }
  if (settings.broker.user.empty() && !settings.broker.passwordFile.empty()) {
    return "field broker.user: empty beside broker.passwordFile; give the user whose password it is";
  }
  return CheckTls(settings);
}

bool ReadSecrets(const Settings& settings, std::string& password, std::string& problem) {
  const auto& tls = settings.tls;
  std::string key;
  problem.clear();
  if (!settings.broker.passwordFile.empty()) problem = ReadPassword(settings.broker.passwordFile, password);
  if (problem.empty() && !tls.keyFile.empty()) problem = ReadSecretFile("tls.keyFile", tls.keyFile, key);
  for (const auto& [field, path] :
       {std::pair("caFile", &tls.caFile), std::pair("certificateFile", &tls.certificateFile)}) {
    if (!problem.empty() || path->empty() || ::access(path->c_str(), R_OK) == 0) continue;
    problem = fmt::format("field tls.{}: \"{}\" cannot be read ({})", field, *path, std::strerror(errno));
  }
  return problem.empty();
}

std::string FormatSettings(const Settings& settings) {
  Settings copy = settings;
  return SettingsFile::FormatFields(DescribeFields(copy));
}

std::string FormatFieldTable() {
  Settings defaults;
  return SettingsFile::FormatFieldTable(DescribeFields(defaults));
}

}  // namespace Tavi::Mqtt
