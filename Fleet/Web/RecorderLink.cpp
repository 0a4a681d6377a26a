// The recorder behind its control socket, as the console asks it.
#include "Fleet/Web/RecorderLink.h"

#include "Control/ControlClient.h"
#include "Control/Protocol.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Web {
namespace {

using namespace std::chrono_literals;
constexpr auto StatusAge = 500ms;
constexpr auto StatusPatience = 3000ms;

std::string FindText(const RecorderLink::Json& object, const char* name) {
  const auto found = object.is_object() ? object.find(name) : object.end();
  return object.is_object() && found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace

RecorderLink::RecorderLink(std::string controlSocket) : m_controlSocket(std::move(controlSocket)) {}

RecorderLink::Answer RecorderLink::Ask(const Json& request, std::chrono::milliseconds patience) const {
  Answer answer;
  const auto line =
      Recorder::Exchange(m_controlSocket, Recorder::BuildLine(request), {patience, 0ms, {}}, answer.problem);
  answer.isAway = !line;
  if (!line) return answer;
  const auto reply = Kbase::Json::Parse(*line);
  const auto ok = reply.is_object() ? reply.find("ok") : reply.end();
  if (!reply.is_object() || ok == reply.end() || !ok->is_boolean()) {
    answer.isAway = true;
    answer.problem = "what answers at " + m_controlSocket + " is no recorder";
    return answer;
  }
  answer.text = *line;
  answer.isOk = ok->get<bool>();
  answer.problem = FindText(reply, "error");
  if (!answer.isOk && answer.problem.empty()) answer.problem = "the recorder refuses, but not why";
  return answer;
}

RecorderLink::Answer RecorderLink::AskStatus() {
  const std::lock_guard lock(m_mutex);
  if (m_askedAt != Clock::time_point() && Clock::now() - m_askedAt < StatusAge) return m_status;
  m_status = Ask({{"command", Recorder::Command::Status}}, StatusPatience);
  m_askedAt = Clock::now();
  if (!m_status.isOk) return m_status;
  const auto status = Kbase::Json::Parse(m_status.text);
  const auto storage = status.find("storage");
  const std::string directory = storage == status.end() ? "" : FindText(*storage, "eventsDir");
  if (!directory.empty()) m_eventsDirectory = directory;
  return m_status;
}

std::string RecorderLink::FindEventsDirectory() {
  static_cast<void>(AskStatus());
  const std::lock_guard lock(m_mutex);
  return m_eventsDirectory;
}

}  // namespace Tavi::Web
