// Restarting the unit.
#include "Ksystem/System/Reboot.h"

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <utility>

#ifdef TAVI_UNIT
#include <sys/reboot.h>
#include <unistd.h>
#endif

#include "Kbase/Klog/Logger.h"

namespace Ksystem::System {
namespace {

std::mutex g_mutex;
std::function<void()> g_handler;

}  // namespace

void SetRebootHandler(std::function<void()> handler) {
  const std::lock_guard lock(g_mutex);
  g_handler = std::move(handler);
}

void Reboot() {
  std::function<void()> handler;
  {
    const std::lock_guard lock(g_mutex);
    handler = g_handler;
  }
  if (handler) {
    handler();
    return;
  }
  auto& logger = Kbase::Klog::Logger::GetInstance();
#ifdef TAVI_UNIT
  logger.Flush();
  ::sync();
  ::reboot(RB_AUTOBOOT);
  // Who is not root leaves it to the service manager, which goes by the exit status.
  if (errno == EPERM) {
    logger.Info("Ksystem", "ending the process with the status that the machine is restarted by");
  } else {
    logger.Error("Ksystem", "the machine cannot be restarted; ending the process");
  }
#else
  logger.Info("Ksystem", "this is not the unit: ending the process instead of restarting the machine");
#endif
  logger.Flush();
  // Any thread may be here and others are still running: no destructors.
  std::_Exit(RebootExitStatus);
}

}  // namespace Ksystem::System
