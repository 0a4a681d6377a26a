// One run of another program, within bounds.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Fleet/Upload/StopSignal.h"

namespace Tavi::Upload {

struct ChildOrder {
  /// The program, looked for along PATH, and its arguments.
  std::vector<std::string> words;
  /// What it reads from its standard input.
  std::string input = {};
  /// It is killed after so long.
  std::chrono::milliseconds limit{0};
  /// A descriptor that it inherits, so that a lock lasts as long as it does; -1 for none.
  int inheritedFd = -1;
  /// Called some times a minute meanwhile; may be empty.
  std::function<void()> onTick = {};
};

struct ChildResult {
  /// It ended by itself with `status`; else `problem` says what became of it.
  bool hasEnded = false;
  int status = -1;
  /// Its standard output, of which more than 1 MiB is no answer of a program that we run.
  std::string output;
  /// The last line of its standard error, without time and control characters; or why there was no run.
  std::string problem;
};

/// Runs the program in a process group of its own and waits for its end. The group is killed when `stop` is asked to
/// end, when the limit is over, and by the kernel when the calling thread dies, however that is. Blocks; reentrant.
ChildResult RunChild(const ChildOrder& order, const StopSignal& stop);

/// The last line that says something, as a reason for people: without rclone's time and level, at most 300 bytes.
std::string GetLastLine(const std::string& text);

}  // namespace Tavi::Upload
