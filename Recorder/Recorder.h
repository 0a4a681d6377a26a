// The recorder: acquisition, events one after another, a report of each.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "EventStore/DirectoryLock.h"
#include "Kbase/Util/EntryGuard.h"
#include "Recorder/Console.h"
#include "Recorder/EventReport.h"
#include "Recorder/Options.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace Tavi::Recorder {

/// Runs what the options say on the thread that calls Run. Stop and PowerFail may be called from any other thread,
/// and are to be called again until Run returns: what came between two events ends the next one then.
class Recorder final : private PipelineCollect::CollectAsyncCallbackInterface {
 public:
  /// Prints reports to the descriptor `reportFd`, which stays the caller's.
  Recorder(const Options& options, int reportFd);
  ~Recorder() override;

  /// Takes the directories for this process. False, with one sentence in `problem`, when another one has them.
  [[nodiscard]] bool Open(std::string& problem);
  /// First finishes what a power failure has interrupted. Exit status: 0 when every event has files or the run was
  /// ended from outside, 1 otherwise.
  int Run();
  /// A collect under way ends early and is reported, then acquisition is stopped.
  void Stop();
  /// A collect under way is saved in the backup directory, then acquisition is stopped. `why` begins the log's line.
  void PowerFail(const std::string& why);

 private:
  using CollectManager = PipelineCollect::PipelineCollectManager;
  struct Request;

  void Recover();
  void Wait(const std::string& what, double seconds);
  void TakeEvent(int number);
  void Collect(CollectManager& manager, int number);
  void CollectFinished(PipelineCollect::PipelineCollectOutput& output, bool success, void* userData) override;
  void Conclude(const Request& request, const PipelineCollect::PipelineCollectOutput& output);
  void WaitForMuxes();
  [[nodiscard]] bool IsEnding() const { return m_interrupted || m_powerFailed; }
  void Print(const std::string& text);

  const Options m_options;
  const int m_reportFd;
  /// Output and backup directory; what is restored lies beside the latter.
  std::vector<EventStore::DirectoryLock> m_locks;
  Console m_console;
  std::atomic<bool> m_interrupted{false};
  std::atomic<bool> m_powerFailed{false};
  std::atomic<bool> m_failed{false};
  Pipeline::PipelineManager m_pipeline;
  std::unique_ptr<CollectManager> m_first;
  /// Null unless asked for.
  std::unique_ptr<CollectManager> m_second;
  /// Guards m_muxing, and the reports' order on the descriptor.
  std::mutex m_mutex;
  std::condition_variable m_muxed;
  /// Events that a mux thread will report.
  int m_muxing = 0;
  Kbase::Util::EntryGuard m_guard{Log::Tag, "an event of the second manager could not be collected"};
};

}  // namespace Tavi::Recorder
