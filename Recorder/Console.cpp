// The terminal: log lines and, under them, a progress bar.
#include "Recorder/Console.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "Kbase/Klog/Logger.h"

namespace Tavi::Recorder {
namespace {

constexpr std::chrono::milliseconds RedrawPeriod{200};
constexpr int BarWidth = 30;
/// Carriage return, then "erase to the end of the line" (ECMA-48 EL).
constexpr const char* EraseLine = "\r\x1b[K";

}  // namespace

Console::Console() : IThread("CONSOLE", OnFailure::GoOn), m_terminal(isatty(STDERR_FILENO) == 1) {
  if (!m_terminal) return;
  auto& logger = Kbase::Klog::Logger::GetInstance();
  logger.SetConsole(false);
  logger.SetObserver([this](Kbase::Klog::Level, std::string_view line) { WriteLine(line); });
  Start();
}

Console::~Console() {
  if (!m_terminal) return;
  Stop();
  End();
  auto& logger = Kbase::Klog::Logger::GetInstance();
  logger.SetObserver({});
  logger.SetConsole(true);
}

void Console::Begin(const std::string& what, std::chrono::duration<double> duration) {
  const std::lock_guard lock(m_mutex);
  m_what = what;
  m_start = std::chrono::steady_clock::now();
  m_duration = duration;
}

void Console::End() {
  const std::lock_guard lock(m_mutex);
  if (m_terminal && !m_what.empty()) Erase();
  m_what.clear();
}

void Console::Run() {
  {
    const std::lock_guard lock(m_mutex);
    Draw();
  }
  WaitForCancel(RedrawPeriod);
}

void Console::WriteLine(std::string_view line) {
  const std::lock_guard lock(m_mutex);
  Erase();
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fputc('\n', stderr);
  Draw();
}

void Console::Erase() {
  std::fputs(EraseLine, stderr);
  std::fflush(stderr);
}

void Console::Draw() {
  if (m_what.empty()) return;
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - m_start;
  const double part = m_duration.count() > 0 ? std::min(elapsed / m_duration, 1.0) : 1.0;
  const int filled = static_cast<int>(part * BarWidth);
  const std::string bar = std::string(filled, '#') + std::string(BarWidth - filled, '.');
  std::fputs(fmt::format("{}{} [{}] {:.0f} of {:.0f} s", EraseLine, m_what, bar,
                         std::min(elapsed.count(), m_duration.count()), m_duration.count())
                 .c_str(),
             stderr);
  std::fflush(stderr);
}

}  // namespace Tavi::Recorder
