// The terminal: log lines and, under them, a progress bar.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Recorder {

/// While one lives, log lines go to standard error. On a terminal a progress bar stays on the last line and the log
/// scrolls above it; elsewhere there is no bar, so that a log file holds log lines only. Thread-safe.
class Console final : public Kbase::Interfaces::IThread {
 public:
  Console();
  ~Console() override;

  /// Shows a bar that fills within `duration`, from now on.
  void Begin(const std::string& what, std::chrono::duration<double> duration);
  /// Takes the bar away.
  void End();

 protected:
  void Run() override;

 private:
  void WriteLine(std::string_view line);
  void Draw();
  void Erase();

  const bool m_terminal;
  std::mutex m_mutex;
  std::string m_what;
  std::chrono::steady_clock::time_point m_start;
  std::chrono::duration<double> m_duration{0};
};

}  // namespace Tavi::Recorder
