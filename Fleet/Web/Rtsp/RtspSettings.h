// What can be chosen of the RTSP server.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "SettingsFile/Field.h"

namespace Tavi::Web {

struct RtspSettings {
  bool enabled = false;
  /// IPv4 or IPv6 address to listen at.
  std::string address = "127.0.0.1";
  std::int32_t port = 8554;
  /// A file with one line "user:password" that only its owner may read; empty: no credentials, on loopback only.
  std::string credentialsFile;
  /// A client that takes nothing for so long is dropped. Not in the file: there is no reason to choose.
  std::int32_t stalledMs = 10'000;
};

/// The fields, `prefix` before each name, as "rtsp.".
std::vector<SettingsFile::Field> DescribeRtspFields(RtspSettings& settings, const std::string& prefix);

/// What does not fit together, in one line that begins with the field's name; empty when all is well.
std::string CheckRtspSettings(const RtspSettings& settings, const std::string& prefix);

}  // namespace Tavi::Web
