// The console's settings.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Control/Protocol.h"
#include "Fleet/Web/Gate.h"
#include "Fleet/Web/HttpServer.h"
#include "Fleet/Web/Rtsp/RtspSettings.h"
#include "SettingsFile/Field.h"

namespace Tavi::Web {

/// Plain values; docs/console.md tells of each field.
struct WebSettings {
  std::string address = "127.0.0.1";
  std::int32_t port = 8080;
  /// Names beside "localhost" and addresses, with commas between them.
  std::string hosts;
  std::string controlSocket = Recorder::DefaultControlSocket;
  /// Empty: where the recorder says.
  std::string eventsDir;
  std::string tokenFile;
  std::string certificateFile;
  std::string keyFile;
  RtspSettings rtsp;
};

/// Borrows `settings`.
std::vector<SettingsFile::Field> DescribeFields(WebSettings& settings);

/// The first field that is out of its range or does not fit the others, in one line; empty when all is well. Looks at
/// values only.
std::string CheckSettings(const WebSettings& settings);

/// Reads the files that the settings name. False, with one line that names the field, when one cannot be taken.
[[nodiscard]] bool ReadFiles(const WebSettings& settings, GateSettings& gate, HttpSettings& http, std::string& problem);

/// 127.0.0.0/8 and ::1: nobody but this machine's own programs.
bool IsLoopback(const std::string& address);

}  // namespace Tavi::Web
