// What tavi-mqtt can be told.
#pragma once

#include <cstdint>
#include <string>

namespace Tavi::Mqtt {

/// Where and as whom.
struct BrokerSettings {
  /// Name or address; nothing is published without one.
  std::string host;
  int port = 1883;
  /// Of MQTT: "5", whose broker says why it refuses a message, or "3.1.1".
  std::string protocol = "5";
  /// Empty: the program's name and the unit's.
  std::string clientId;
  /// Empty: without.
  std::string user;
  /// Its first line is the password. Nobody but its owner may read it.
  std::string passwordFile;
  /// A connection that is silent for half as long again is taken for lost: by the broker, which publishes the will, and
  /// by the unit.
  int keepAliveSeconds = 60;
  /// Between two tries to connect; the first pauses are shorter.
  int longestPauseSeconds = 60;
};

struct TlsSettings {
  bool enabled = false;
  /// Whom the broker's certificate is to be signed by (PEM). Empty: those whom this machine trusts.
  std::string caFile;
  /// The unit's own (PEM); both or none.
  std::string certificateFile;
  std::string keyFile;
};

/// Plain values. docs/mqtt.md tells of each field.
struct Settings {
  BrokerSettings broker;
  TlsSettings tls;
  /// The unit's name in all topics. Empty: the machine's, up to its first dot.
  std::string unit;
  /// What all topics begin with.
  std::string topicPrefix = "tavi";
  int healthSeconds = 60;
  bool discovery = true;
  std::string discoveryPrefix = "homeassistant";
  /// Empty: where the running recorder keeps them.
  std::string eventsDir;
  /// At the first start: also the events that are there already.
  bool earlierEvents = false;
  /// The recorder's, for its health.
  std::string controlSocket = "/run/tavi/control.sock";
  /// Which events the broker has acknowledged.
  std::string stateFile = "/var/lib/tavi-mqtt/acknowledged";
};

/// Reads a JSON file of at most 1 MiB; what it does not name has its default. False, with one line that names file,
/// line and field in `problem`, when anything in it is wrong. Reentrant, as everything here.
[[nodiscard]] bool LoadSettings(const std::string& path, Settings& settings, std::string& problem);

/// Puts the machine's name in where the unit has none, and the client id that follows from it.
void CompleteSettings(Settings& settings);

/// The first field that is out of its range or does not fit the others, in one line; empty when all is well. The
/// settings are to be complete. Looks at values only.
std::string CheckSettings(const Settings& settings);

/// Reads the password. False, with one line that names the field in `problem`, when it or a file of `tls` cannot be
/// read or is for others' eyes, too.
[[nodiscard]] bool ReadSecrets(const Settings& settings, std::string& password, std::string& problem);

/// All fields as a file that LoadSettings reads back to the same settings.
std::string FormatSettings(const Settings& settings);
/// The table of docs/mqtt.md.
std::string FormatFieldTable();

}  // namespace Tavi::Mqtt
