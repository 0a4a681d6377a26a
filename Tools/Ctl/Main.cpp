// tavi-ctl: asks and steers a running recorder, and looks at its events.
#include <unistd.h>

#include <chrono>
#include <functional>
#include <iostream>

#include "Control/ControlClient.h"
#include "Kbase/Json/Json.h"
#include "Tools/Ctl/CtlOptions.h"
#include "Tools/Ctl/LocalCommands.h"
#include "Tools/Ctl/ReplyText.h"

namespace {

using namespace Tavi::Ctl;
using Json = nlohmann::ordered_json;
namespace Command = Tavi::Recorder::Command;

/// What takes long is seen to go on, on a terminal only; it is gone when the reply is there.
class WaitingLine {
 public:
  ~WaitingLine() {
    if (m_isShown) std::cerr << "\r\033[K" << std::flush;
  }
  void Show(std::chrono::seconds waited) {
    m_isShown = true;
    std::cerr << "\rwaiting for the recorder: " << waited.count() << " s" << std::flush;
  }

 private:
  bool m_isShown = false;
};

std::optional<std::string> Wait(const CtlOptions& options, const Json& request, std::string& problem) {
  WaitingLine waiting;
  std::function<void(std::chrono::seconds)> onWait;
  if (isatty(STDERR_FILENO) != 0) onWait = [&waiting](std::chrono::seconds waited) { waiting.Show(waited); };
  const Tavi::Recorder::Patience patience{GetTimeout(options), GetConnectTime(options), onWait};
  return Tavi::Recorder::Exchange(options.socketPath, Tavi::Recorder::BuildLine(request), patience, problem);
}

bool IsTrue(const Json& reply, const char* name) {
  const auto member = reply.find(name);
  return member != reply.end() && member->is_boolean() && member->get<bool>();
}

int GetFailure(const Json& reply) {
  if (IsTrue(reply, "waits")) return WaitingExitStatus;
  return IsTrue(reply, "saved") ? PartialExitStatus : FailureExitStatus;
}

int Ask(const CtlOptions& options, const Json& request) {
  std::string problem;
  const auto line = Wait(options, request, problem);
  if (!line) return Complain(NoRecorderExitStatus, problem);
  const Json reply = Kbase::Json::Parse(*line);
  if (!reply.is_object() || !reply.contains("ok") || !reply["ok"].is_boolean()) {
    return Complain(NoRecorderExitStatus, "what answers at " + options.socketPath + " is no recorder");
  }
  const bool isOk = reply["ok"].get<bool>();
  std::string text = options.json ? *line + "\n" : "";
  // An event that is there, if not all of it, is to be found all the same; what it lacks is in the sentence.
  Json shown = reply;
  shown.erase("error");
  shown.erase("missing");
  if ((isOk || IsTrue(reply, "saved")) && !options.json) text = FormatReply(options.command, shown);
  if (!Print(text)) return FailureExitStatus;
  if (isOk) return 0;
  const auto error = reply.find("error");
  const bool hasReason = error != reply.end() && error->is_string();
  return Complain(GetFailure(reply), hasReason ? error->get<std::string>() : "the recorder refuses, but not why");
}

/// Each event in its turn, up to the first that the recorder refuses.
int AskOfEach(const CtlOptions& options) {
  int status = 0;
  for (const auto& id : ChooseEvents(options, status)) {
    Json request = options.request;
    request["event"] = id;
    if (status = Ask(options, request); status != 0) break;
  }
  return status;
}

int Run(const CtlOptions& options) {
  if (options.command == Command::Events) return RunEvents(options);
  if (options.command == LocalCommand::Show) return RunShow(options);
  if (options.command == LocalCommand::Export) return RunExport(options);
  const bool isOfEvents = options.command == Command::Protect || options.command == Command::Remove;
  if (isOfEvents || options.command == Command::Label) return AskOfEach(options);
  return Ask(options, options.request);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    CtlOptions options;
    if (const auto status = ParseOptions(argc, argv, options, std::cout, std::cerr)) return *status;
    return Run(options);
  } catch (const std::exception& error) {
    return Complain(FailureExitStatus, error.what());
  }
}
