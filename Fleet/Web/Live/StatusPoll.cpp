// The recorder's status, once a second for all viewers.
#include "Fleet/Web/Live/StatusPoll.h"

#include <utility>

#include "Control/ControlClient.h"
#include "Control/Protocol.h"
#include "Fleet/Web/Live/Fanout.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Web {
namespace {

constexpr std::chrono::milliseconds Period{1000};
/// Whoever stops this waits as long.
constexpr std::chrono::milliseconds StatusWithin{1500};

}  // namespace

StatusPoll::StatusPoll(std::string controlSocket, std::shared_ptr<Fanout> fanout)
    : IThread("LIVE-STATUS", OnFailure::GoOn), m_controlSocket(std::move(controlSocket)), m_fanout(std::move(fanout)) {}

StatusPoll::~StatusPoll() {
  Stop();
}

void StatusPoll::Run() {
  if (m_fanout->Count() > 0) {
    std::string problem;
    const Recorder::Patience patience{StatusWithin, std::chrono::milliseconds(0), {}};
    const std::string request = Recorder::BuildLine({{"command", Recorder::Command::Status}});
    const auto line = Recorder::Exchange(m_controlSocket, request, patience, problem);
    const auto reply = line ? Kbase::Json::Parse(*line) : Kbase::Json::Object();
    if (reply.is_object() && reply.value("ok", false)) {
      m_fanout->PublishJson("{\"status\":" + *line + "}", "status");
    }
  }
  WaitForCancel(Period);
}

}  // namespace Tavi::Web
