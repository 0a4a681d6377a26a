// The recorder: acquisition, events one after another, a report of each.
#include "Recorder/Recorder.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "Kbase/Util/Clock.h"
#include "Kbase/Util/TimeMonitor.h"
#include "Pipeline/Log.h"

namespace Tavi::Recorder {
namespace {

using Seconds = std::chrono::duration<double>;

constexpr std::chrono::milliseconds InterruptPoll{50};

std::string WithSlash(const std::string& directory) {
  return directory.empty() || directory.back() == '/' ? directory : directory + "/";
}

PipelineCollect::PipelineCollectManagerConfig BuildCollectConfig(const Options& options,
                                                                 Pipeline::PipelineManager& pipeline) {
  PipelineCollect::PipelineCollectManagerConfig config;
  config.pipelineManager = &pipeline;
  config.workDir = WithSlash(options.outputDir);
  config.backupDir = config.workDir + "power_failure/";
  return config;
}

PipelineCollect::PipelineCollectManager BuildCollectManager(const Options& options,
                                                            Pipeline::PipelineManager& pipeline) {
  auto config = BuildCollectConfig(options, pipeline);
  return PipelineCollect::PipelineCollectManager(config);
}

}  // namespace

Recorder::Recorder(const Options& options, int reportFd)
    : m_options(options),
      m_reportFd(reportFd),
      m_pipeline(options.pipeline),
      m_collect(BuildCollectManager(options, m_pipeline)) {}

Recorder::~Recorder() = default;

int Recorder::Run() {
  m_pipeline.RunIgnitionStart();
  bool complete = true;
  for (int number = 1; number <= m_options.eventCount && !m_interrupted; ++number) {
    WaitForEvent();
    if (!m_interrupted) complete = CollectEvent(number) && complete;
  }
  m_pipeline.RunIgnitionOff();
  m_pipeline.RunSigInt();
  return complete ? 0 : 1;
}

void Recorder::Interrupt() {
  m_interrupted = true;
  m_pipeline.EndSupervision();
  m_collect.CancelCollect(false);
}

void Recorder::WaitForEvent() {
  auto& clock = Kbase::Util::IClock::Steady();
  const auto wait =
      std::chrono::duration_cast<Kbase::Util::IClock::Milliseconds>(Seconds(m_options.collectAfterSeconds));
  m_console.Begin("recording", wait);
  for (const Kbase::Util::TimeMonitor monitor(clock); monitor.Elapsed() < wait && !m_interrupted;) {
    clock.Sleep(std::min(wait - monitor.Elapsed(), Kbase::Util::IClock::Milliseconds(InterruptPoll)));
  }
  m_console.End();
}

bool Recorder::CollectEvent(int number) {
  PipelineCollect::PipelineCollectInput input;
  input.startSeconds = m_options.startSeconds;
  input.durationSeconds = m_options.durationSeconds;
  input.outputDir = WithSlash(m_options.outputDir);
  EventReport report;
  report.number = number;
  m_console.Begin(fmt::format("collecting event {}", number), std::chrono::seconds(m_options.durationSeconds));
  const Kbase::Util::TimeMonitor monitor;
  const bool collected = m_collect.Collect(input, report.output);
  report.collectSeconds = Seconds(monitor.Elapsed()).count();
  m_console.End();
  if (!collected) return false;  // the reason stands in the log
  Print(report);
  if (report.output.outputs.empty())
    Log::Error("the event has no files: no source has delivered, or nothing could be written");
  return !report.output.outputs.empty() || m_interrupted;
}

void Recorder::Print(const EventReport& report) const {
  const std::string text = m_options.json ? FormatJson(report) + "\n" : FormatTable(report);
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = write(m_reportFd, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      Log::Error(fmt::format("cannot write the report of event {}: {}", report.number, std::strerror(errno)));
      return;
    }
    done += static_cast<std::size_t>(written);
  }
}

}  // namespace Tavi::Recorder
