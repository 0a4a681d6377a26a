// The recorder: acquisition, events one after another, a report of each.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Pipeline/PipelineManager.h"
#include "PipelineCollect/PipelineCollectManager.h"
#include "Recorder/Console.h"
#include "Recorder/EventReport.h"
#include "Recorder/Options.h"

namespace Tavi::Recorder {

/// Runs what the options say on the thread that calls Run. Interrupt may be called from any other thread: a collect
/// under way ends early and is reported, then acquisition is stopped.
class Recorder {
 public:
  /// Prints reports to the descriptor `reportFd`, which stays the caller's.
  Recorder(const Options& options, int reportFd);
  ~Recorder();

  /// Exit status: 0 when every event has files or the run was interrupted, 1 otherwise.
  int Run();
  void Interrupt();

 private:
  void WaitForEvent();
  bool CollectEvent(int number);
  void Print(const EventReport& report) const;

  const Options m_options;
  const int m_reportFd;
  Console m_console;
  std::atomic<bool> m_interrupted{false};
  Pipeline::PipelineManager m_pipeline;
  PipelineCollect::PipelineCollectManager m_collect;
};

}  // namespace Tavi::Recorder
