// The recorder: acquisition, events one after another, a report of each.
#include "Recorder/Recorder.h"

#include <fmt/format.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "Kbase/Util/Clock.h"
#include "Kbase/Util/TimeMonitor.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/UniqueFd.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/RecoveryCollect/RecoveryCollectManager.h"

namespace Tavi::Recorder {
namespace {

using Kbase::Util::IClock;
using PipelineCollect::PipelineCollectOutput;
using Seconds = std::chrono::duration<double>;

constexpr IClock::Milliseconds InterruptPoll{50};

std::string WithSlash(const std::string& directory) {
  return directory.empty() || directory.back() == '/' ? directory : directory + "/";
}

/// Where events are saved when power fails, and where the next start finishes them.
std::string GetSaveDir(const Options& options, const char* name) {
  return WithSlash(options.backupDir.empty() ? options.outputDir : options.backupDir) + name;
}

std::unique_ptr<PipelineCollect::PipelineCollectManager> MakeManager(const Options& options,
                                                                     Pipeline::PipelineManager& pipeline, bool second) {
  PipelineCollect::PipelineCollectManagerConfig config;
  config.pipelineManager = &pipeline;
  config.cr = second;
  config.workDir = WithSlash(options.outputDir);
  config.backupDir = GetSaveDir(options, "power_failure/");
  return std::make_unique<PipelineCollect::PipelineCollectManager>(config);
}

}  // namespace

/// One event of one manager, until it is reported.
struct Recorder::Request {
  int number = 0;
  bool second = false;
  Kbase::Util::TimeMonitor sinceStart;
};

Recorder::Recorder(const Options& options, int reportFd)
    : m_options(options),
      m_reportFd(reportFd),
      m_pipeline(options.pipeline),
      m_first(MakeManager(options, m_pipeline, false)),
      m_second(options.secondManager ? MakeManager(options, m_pipeline, true) : nullptr) {}

Recorder::~Recorder() = default;

bool Recorder::Open(std::string& problem) {
  for (const std::string& dir : {WithSlash(m_options.outputDir), GetSaveDir(m_options, "power_failure/")}) {
    if (!Ksystem::FileUtils::Kdir(dir).Create()) continue;
    m_locks.emplace_back(dir);
    if (!m_locks.back().Take(problem)) return false;
  }
  return true;
}

int Recorder::Run() {
  Recover();
  m_pipeline.RunIgnitionStart();
  for (int number = 1; number <= m_options.eventCount && !IsEnding(); ++number) {
    Wait("recording", m_options.collectAfterSeconds);
    if (!IsEnding()) TakeEvent(number);
  }
  WaitForMuxes();
  m_pipeline.RunIgnitionOff();
  m_pipeline.RunSigInt();
  return m_failed ? 1 : 0;
}

void Recorder::Stop() {
  m_interrupted = true;
  m_pipeline.EndSupervision();
  m_first->CancelCollect(false);
  if (m_second) m_second->CancelCollect(false);
}

void Recorder::PowerFail(const std::string& why) {
  if (!m_powerFailed.exchange(true)) Log::Warning(why + ": a running event is saved, then recording ends");
  m_pipeline.EndSupervision();
  m_first->PowerFailure();
  if (m_second) m_second->PowerFailure();
}

void Recorder::Recover() {
  using RecoveryCollect::RecoveryCollectManager;
  RecoveryCollect::RecoveryCollectInput input;
  input.restoreDir = GetSaveDir(m_options, "power_restore/");
  input.outputDir = m_options.outputDir;
  input.camera0Fps = static_cast<float>(m_options.pipeline.camera0.fps);
  input.camera1Fps = static_cast<float>(m_options.pipeline.camera1.fps);
  RecoveryCollect::RecoveryCollectOutput output;
  // What could not be moved or recovered stays where it is, is in the log, and keeps nobody from recording.
  RecoveryCollectManager::MoveBackup(GetSaveDir(m_options, "power_failure/"), input.restoreDir);
  RecoveryCollectManager::Collect(input, output);
  for (const auto& event : output.events) {
    if (event.isNew) Print(m_options.json ? FormatJson(event) + "\n" : FormatTable(event));
  }
}

void Recorder::Wait(const std::string& what, double seconds) {
  auto& clock = IClock::Steady();
  const auto wait = std::chrono::duration_cast<IClock::Milliseconds>(Seconds(seconds));
  m_console.Begin(what, wait);
  for (const Kbase::Util::TimeMonitor monitor(clock); monitor.Elapsed() < wait && !IsEnding();) {
    clock.Sleep(std::min(wait - monitor.Elapsed(), InterruptPoll));
  }
  m_console.End();
}

void Recorder::TakeEvent(int number) {
  std::jthread beside;
  if (m_second) {
    beside = std::jthread([this, number] {
      pthread_setname_np(pthread_self(), "EVENT-CR");
      if (!m_guard.Run([this, number] { Collect(*m_second, number); })) m_failed = true;
    });
  }
  m_console.Begin(fmt::format("collecting event {}", number), std::chrono::seconds(m_options.durationSeconds));
  Collect(*m_first, number);
  if (beside.joinable()) beside.join();
  m_console.End();
}

void Recorder::Collect(CollectManager& manager, int number) {
  PipelineCollect::PipelineCollectInput input;
  input.startSeconds = m_options.startSeconds;
  input.durationSeconds = m_options.durationSeconds;
  input.withPreview = m_options.withPreview;
  input.outputDir = WithSlash(m_options.outputDir);
  auto request = std::make_unique<Request>(Request{number, &manager == m_second.get(), Kbase::Util::TimeMonitor()});
  if (!m_options.async) {
    PipelineCollectOutput output;
    if (manager.Collect(input, output)) {
      Conclude(*request, output);
    } else {
      m_failed = true;  // the reason stands in the log
    }
    return;
  }
  {
    const std::lock_guard lock(m_mutex);
    ++m_muxing;
  }
  Request* const handedOver = request.release();  // CollectFinished takes it back
  if (manager.CollectAsync(input, this, handedOver)) return;
  request.reset(handedOver);
  m_failed = true;
  const std::lock_guard lock(m_mutex);
  --m_muxing;
}

void Recorder::CollectFinished(PipelineCollectOutput& output, bool /*success*/, void* userData) {
  const std::unique_ptr<Request> request(static_cast<Request*>(userData));
  Conclude(*request, output);
  const std::lock_guard lock(m_mutex);
  --m_muxing;
  m_muxed.notify_all();
}

void Recorder::WaitForMuxes() {
  std::unique_lock lock(m_mutex);
  m_muxed.wait(lock, [this] { return m_muxing == 0; });
}

void Recorder::Conclude(const Request& request, const PipelineCollectOutput& output) {
  const EventReport report{request.number, request.second, Seconds(request.sinceStart.Elapsed()).count(), m_powerFailed,
                           output};
  Print(m_options.json ? FormatJson(report) + "\n" : FormatTable(report));
  if (!output.outputs.empty() || IsEnding()) return;
  Log::Error("the event has no files: no source has delivered, or nothing could be written");
  m_failed = true;
}

void Recorder::Print(const std::string& text) {
  const std::lock_guard lock(m_mutex);
  if (Ksystem::FileUtils::WriteAll(m_reportFd, text.data(), text.size())) return;
  Log::Error(fmt::format("cannot write a report: {}", std::strerror(errno)));
}

}  // namespace Tavi::Recorder
