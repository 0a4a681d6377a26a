// The steady clock of the system.
#include "Kbase/Util/Clock.h"

#include <thread>

namespace Kbase::Util {
namespace {

class SteadyClock final : public IClock {
 public:
  Milliseconds Now() override {
    return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
  }
  // libstdc++ resumes nanosleep after EINTR.
  void Sleep(Milliseconds duration) override { std::this_thread::sleep_for(duration); }
};

}  // namespace

IClock& IClock::Steady() {
  static SteadyClock clock;
  return clock;
}

}  // namespace Kbase::Util
