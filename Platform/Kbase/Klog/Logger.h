// The process's logger: one line format, a console and a file sink, written by a thread of its own.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace Kbase::Klog {

enum class Level { Info, Warning, Error };

/// How large a log file becomes, and what is kept of it.
struct FileLimits {
  /// A line that would make it larger begins a new one: "recorder.log" becomes "recorder.1.log", that one
  /// "recorder.2.log". 0: no limit.
  std::size_t maxBytes = 0;
  /// How many old ones there are; the oldest goes. With 0 the file begins anew.
  std::size_t oldFiles = 0;
};

/// The logger singleton. Thread-safe.
///
/// A line is "[2026-11-21 07:15:00]" (local time), then "[47C]" when the unit's temperature is known, then "[ERROR]" or
/// "[WARNING]" (nothing for information), then "[tag]", a blank and the message. The calling thread formats the line
/// and queues it; the sinks are written on the logger's own thread, so a producer never waits for a disk or a terminal.
/// When the queue of 8192 lines is full the oldest lines are dropped, and a line tells how many.
class Logger {
 public:
  using Observer = std::function<void(Level level, std::string_view line)>;

  static Logger& GetInstance();

  void Info(std::string_view tag, std::string_view message) { Log(Level::Info, tag, message); }
  void Warning(std::string_view tag, std::string_view message) { Log(Level::Warning, tag, message); }
  void Error(std::string_view tag, std::string_view message) { Log(Level::Error, tag, message); }
  void Log(Level level, std::string_view tag, std::string_view message);

  /// Turns the console sink (standard error) on or off. It is on at start.
  void SetConsole(bool enabled);

  /// Appends every later line to the file at `path` as well; an empty path ends that. False when the file cannot be
  /// opened: the sinks stay as they were.
  bool SetFile(const std::string& path, FileLimits limits = {});

  /// Opens the file of SetFile anew before the next line is written, because somebody has renamed it. Does not wait
  /// for that; a file that cannot be opened is told on standard error, and lines go on into the one before.
  void ReopenFile();

  /// Hands every later line to `observer` too, on the logging thread and without a lock held; an empty one ends that.
  /// It must not log itself.
  void SetObserver(Observer observer);

  /// Blocks until every line logged so far is in the sinks. Call it before the process ends by other means than exit().
  void Flush();

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

 private:
  Logger();
  ~Logger();
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace Kbase::Klog
