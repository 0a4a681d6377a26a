// tavi-ctl: asks and steers a running recorder.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>

#include "Kbase/Json/Json.h"
#include "Tools/Ctl/ControlClient.h"
#include "Tools/Ctl/CtlOptions.h"
#include "Tools/Ctl/ReplyText.h"

namespace {

using namespace Tavi::Ctl;
using Json = nlohmann::ordered_json;

constexpr int FailureExitStatus = 1;
constexpr int NoRecorderExitStatus = 3;

int Complain(int exitStatus, const std::string& sentence) {
  std::cerr << "tavi-ctl: " + MakePrintable(sentence) + "\n";
  return exitStatus;
}

bool Print(const std::string& text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

std::optional<std::chrono::milliseconds> GetTimeout(const CtlOptions& options) {
  if (!options.timeoutSeconds) return std::nullopt;
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(*options.timeoutSeconds));
}

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

std::optional<std::string> Wait(const CtlOptions& options, std::string& problem) {
  WaitingLine waiting;
  std::function<void(std::chrono::seconds)> onWait;
  if (isatty(STDERR_FILENO) != 0) onWait = [&waiting](std::chrono::seconds waited) { waiting.Show(waited); };
  const std::string line = Tavi::Recorder::BuildLine(options.request);
  return Exchange(options.socketPath, line, GetTimeout(options), onWait, problem);
}

int Ask(const CtlOptions& options) {
  std::string problem;
  const auto line = Wait(options, problem);
  if (!line) return Complain(NoRecorderExitStatus, problem);
  const Json reply = Kbase::Json::Parse(*line);
  if (!reply.is_object() || !reply.contains("ok") || !reply["ok"].is_boolean()) {
    return Complain(NoRecorderExitStatus, "what answers at " + options.socketPath + " is no recorder");
  }
  const bool isOk = reply["ok"].get<bool>();
  const std::string command = options.request["command"].get<std::string>();
  std::string text = options.json ? *line + "\n" : "";
  if (isOk && !options.json) text = FormatReply(command, reply);
  if (!Print(text)) return Complain(FailureExitStatus, std::string("standard output: ") + std::strerror(errno));
  if (isOk) return 0;
  const auto error = reply.find("error");
  const bool hasReason = error != reply.end() && error->is_string();
  return Complain(FailureExitStatus, hasReason ? error->get<std::string>() : "the recorder refuses, but not why");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    CtlOptions options;
    if (const auto status = ParseOptions(argc, argv, options, std::cout, std::cerr)) return *status;
    return Ask(options);
  } catch (const std::exception& error) {
    return Complain(FailureExitStatus, error.what());
  }
}
