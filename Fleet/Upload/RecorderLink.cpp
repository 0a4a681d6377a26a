// What is asked of the recorder.
#include "Fleet/Upload/RecorderLink.h"

#include "Control/ControlClient.h"
#include "Control/Protocol.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Upload {
namespace {

using Kbase::Json::Object;

constexpr std::chrono::seconds AnswerTime{30};

/// The reply of "ok": true; null with what is wrong.
Object Ask(const std::string& socketPath, const Object& request, std::string& problem) {
  const auto line = Recorder::Exchange(socketPath, Recorder::BuildLine(request), {AnswerTime, {}, {}}, problem);
  if (!line) return nullptr;
  auto reply = Kbase::Json::Parse(*line);
  if (reply.is_object() && reply.contains("ok") && reply["ok"] == true) return reply;
  const bool hasError = reply.is_object() && reply.contains("error") && reply["error"].is_string();
  problem = hasError ? "the recorder: " + reply["error"].get<std::string>()
                     : "what answers at " + socketPath + " is no recorder";
  return nullptr;
}

}  // namespace

std::string RecorderLink::AskEventsDir(std::string& problem) const {
  const auto status = Ask(m_socketPath, {{"command", Recorder::Command::Status}}, problem);
  if (status.is_null()) return {};
  if (status.contains("storage") && status["storage"].is_object() && status["storage"].contains("eventsDir") &&
      status["storage"]["eventsDir"].is_string()) {
    return status["storage"]["eventsDir"].get<std::string>();
  }
  problem = "the recorder does not say where its events are";
  return {};
}

bool RecorderLink::Remove(const std::string& eventId, std::string& problem) const {
  return !Ask(m_socketPath, Recorder::BuildRequest(Recorder::RemoveRequest{eventId, false}), problem).is_null();
}

}  // namespace Tavi::Upload
