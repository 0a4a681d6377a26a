// tavi-mqtt: publishes a recorder's events and health over MQTT.
#include <atomic>
#include <csignal>
#include <iostream>

#include "Fleet/Mqtt/Log.h"
#include "Fleet/Mqtt/Options.h"
#include "Fleet/Mqtt/Publisher.h"

namespace {

std::atomic<bool> isStopping{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal's handler writes it");

/// Without SA_RESTART: whatever waits is cut short.
void TakeSignals() {
  struct sigaction action {};
  action.sa_handler = [](int) { isStopping = true; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

int Run(int argc, char** argv) {
  using namespace Tavi::Mqtt;
  Settings settings;
  std::string password;
  if (const auto status = ParseOptions(argc, argv, settings, password, std::cout, std::cerr)) return *status;
  TakeSignals();
  if (!password.empty() && !settings.tls.enabled) {
    Log::Warning("the password goes to the broker unencrypted (tls.enabled)");
  }
  Publisher publisher(settings, password);
  std::string problem;
  if (!publisher.Open(problem)) {
    std::cerr << "tavi-mqtt: stateFile: " + problem + "\n";
    return FailureStatus;
  }
  publisher.Run(isStopping);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int status = 0;
  try {
    status = Run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << std::string("tavi-mqtt: ") + error.what() + "\n";
    status = Tavi::Mqtt::FailureStatus;
  }
  Kbase::Klog::Logger::GetInstance().Flush();
  return status;
}
