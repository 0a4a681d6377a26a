// A periodic call on a thread of its own.
#pragma once

#include <chrono>
#include <functional>

#include "Kbase/Interfaces/IThread.h"
#include "Kbase/Util/EntryGuard.h"

namespace Kbase::Util {

/// Calls back once a period, first one period after construction, until it is destroyed. The calls keep to the grid of
/// the steady clock: a late one does not delay those after it, and calls that were missed altogether are not made up.
class Timer final : public Interfaces::IThread {
 public:
  using Callback = std::function<void(Timer*)>;

  /// Starts at once. `callback` is called on the timer's thread "TIMER". The unit's own library has two more
  /// parameters, which are taken and not used here: a callback brings its context along, and its thread has the
  /// system's default stack, far more than anybody asks for.
  Timer(int periodMs, Callback callback, void* context, int stackBytes);
  /// Waits for the call under way.
  ~Timer() override;

 protected:
  void Run() override;

 private:
  using Clock = std::chrono::steady_clock;

  const std::chrono::milliseconds m_period;
  const Callback m_callback;
  Clock::time_point m_next;
  EntryGuard m_callGuard{"Kbase", "a call of a timer failed"};
};

}  // namespace Kbase::Util
