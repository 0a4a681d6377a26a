// What the recorder says of itself.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "Kbase/Json/Json.h"

namespace Tavi::Mqtt {

struct RecorderStatus {
  /// Its reply to "status"; null when it does not answer.
  Kbase::Json::Object reply;
  /// Of the unit; empty while it is not known.
  std::optional<double> temperatureCelsius;
  /// Why there is no reply, in one sentence; empty when there is one.
  std::string problem;
};

/// Asks the recorder that listens there; gives up after some seconds.
RecorderStatus AskRecorder(const std::string& controlSocket);

/// Where it keeps its events; empty when it does not say.
std::string GetEventsDirectory(const RecorderStatus& status);

}  // namespace Tavi::Mqtt
