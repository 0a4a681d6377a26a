// tavi-web: the recorder's console in the browser.
#include <fmt/format.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include "EventStore/Storage.h"
#include "Fleet/Web/Console.h"
#include "Fleet/Web/HttpServer.h"
#include "Fleet/Web/Live/LiveHub.h"
#include "Fleet/Web/LiveBody.h"
#include "Fleet/Web/Rtsp/RtspServer.h"
#include "Fleet/Web/WebOptions.h"

namespace {

using namespace Tavi::Web;

constexpr int FailureExitStatus = 1;
constexpr int UsageExitStatus = 2;

int Complain(int status, const std::string& sentence) {
  std::cerr << "tavi-web: " << sentence << "\n";
  return status;
}

std::string BuildUrl(const WebSettings& settings, int port) {
  const bool isSix = settings.address.find(':') != std::string::npos;
  return fmt::format("{}://{}{}{}:{}/", settings.certificateFile.empty() ? "http" : "https", isSix ? "[" : "",
                     settings.address, isSix ? "]" : "", port);
}

sigset_t BlockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // Clients leave while they are sent something.
  std::signal(SIGPIPE, SIG_IGN);
  return signals;
}

HttpLimits ChooseLimits(const WebSettings& settings) {
  HttpLimits limits;
  // All of them are one address there.
  if (IsLoopback(settings.address)) limits.connectionsOfOne = 0;
  return limits;
}

int Run(const WebSettings& settings) {
  GateSettings gateSettings;
  HttpSettings httpSettings;
  std::string problem;
  if (!ReadFiles(settings, gateSettings, httpSettings, problem)) return Complain(UsageExitStatus, problem);
  const sigset_t signals = BlockSignals();
  const Gate gate(gateSettings);
  RecorderLink recorder(settings.controlSocket);
  EventIndex index([&] { return settings.eventsDir.empty() ? recorder.FindEventsDirectory() : settings.eventsDir; });
  LiveHub hub(settings.controlSocket);
  const Console console(gate, recorder, index, [&hub](std::string& why) -> std::unique_ptr<BodySource> {
    auto viewer = hub.AddViewer(why);
    return viewer ? std::make_unique<LiveBody>(std::move(viewer)) : nullptr;
  });
  HttpServer server([&console](const Request& request) { return console.Handle(request); }, ChooseLimits(settings));
  index.Start();
  hub.Start();
  std::unique_ptr<RtspServer> rtsp;
  if (settings.rtsp.enabled) rtsp = RtspServer::Start(settings.rtsp, hub, problem);
  if (settings.rtsp.enabled && !rtsp) return Complain(FailureExitStatus, problem);
  if (!server.Start(httpSettings, problem)) return Complain(FailureExitStatus, problem);
  std::cout << BuildUrl(settings, server.GetPort()) << std::endl;
  if (settings.certificateFile.empty() && !IsLoopback(settings.address)) {
    Tavi::EventStore::LogWarning("token and pictures go over the network as they are: there is no certificate");
  }
  int signal = 0;
  sigwait(&signals, &signal);
  rtsp.reset();
  // Whoever looks at live pictures holds a connection: that ends first.
  hub.Stop();
  server.Stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  WebSettings settings;
  if (const auto status = ParseOptions(argc, argv, settings, std::cout, std::cerr)) return *status;
  return Run(settings);
} catch (const std::exception& error) {
  return Complain(FailureExitStatus, error.what());
}
