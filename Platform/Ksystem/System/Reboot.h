// Restarting the unit.
#pragma once

#include <functional>

namespace Ksystem::System {

/// The exit status of a process that would have restarted the unit.
inline constexpr int RebootExitStatus = 86;

/// Restarts the unit and does not return. In builds that are not for the unit it logs and ends the process with
/// RebootExitStatus instead. With a handler set, only that is called, on the calling thread, and Reboot returns.
/// Thread-safe.
void Reboot();

/// Replaces what Reboot does; an empty handler restores it. Thread-safe.
void SetRebootHandler(std::function<void()> handler);

}  // namespace Ksystem::System
