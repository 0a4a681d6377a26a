// Who carries out what the control socket is asked for.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "Control/Reply.h"

namespace Tavi::Recorder {

class ControlHandler {
 public:
  virtual ~ControlHandler() = default;
  /// Called on the thread "CONTROL" with an object that has a string "command"; borrowed for the call. It must not
  /// block, for every client waits meanwhile: what takes time keeps `reply` and answers later. An exception becomes the
  /// client's error. Unknown commands are the handler's to refuse.
  virtual void Handle(const nlohmann::ordered_json& request, Reply reply) = 0;
};

}  // namespace Tavi::Recorder
