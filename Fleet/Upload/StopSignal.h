// The wish to end, as something that can be waited for.
#pragma once

#include <chrono>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Upload {

/// Takes SIGTERM and SIGINT of the process for its life: they no longer end it, they are seen here. To be made before
/// any thread is. Thread-bound.
class StopSignal {
 public:
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  /// Becomes readable when the process is to end, and stays so.
  [[nodiscard]] int GetFd() const { return m_fd.Get(); }
  [[nodiscard]] bool IsStopped() const { return WaitFor(std::chrono::milliseconds(0)); }
  /// True as soon as the process is to end, false after `time`.
  [[nodiscard]] bool WaitFor(std::chrono::milliseconds time) const;

 private:
  Ksystem::FileUtils::UniqueFd m_fd;
};

}  // namespace Tavi::Upload
