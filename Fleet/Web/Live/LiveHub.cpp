// The one connection to the recorder's live streams, and what all viewers are given of it.
#include "Fleet/Web/Live/LiveHub.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "Fleet/Web/Live/Fanout.h"
#include "Fleet/Web/Live/RecorderStream.h"
#include "Fleet/Web/Live/StatusPoll.h"
#include "Fleet/Web/Live/TimeLine.h"
#include "Kbase/Json/Json.h"
#include "Kbase/Klog/Logger.h"

namespace Tavi::Web {
namespace {

using std::chrono::milliseconds;

/// Whoever stops the hub waits as long, or for the next record as long as below.
constexpr milliseconds AnswerWithin{2000};
constexpr milliseconds RecordWithin{100};
constexpr milliseconds FirstPause{250};
constexpr milliseconds LongestPause{4000};
/// While nobody looks; a viewer that comes wakes the hub.
constexpr milliseconds Idle{10'000};

constexpr const char* Tag = "Live";

}  // namespace

LiveHub::LiveHub(std::string controlSocket)
    : IThread("LIVE-HUB", OnFailure::GoOn),
      m_controlSocket(std::move(controlSocket)),
      m_fanout(std::make_shared<Fanout>()),
      m_status(std::make_unique<StatusPoll>(m_controlSocket, m_fanout)),
      m_timeLine(std::make_unique<TimeLine>()) {}

LiveHub::~LiveHub() {
  Stop();
}

std::shared_ptr<LiveViewer> LiveHub::AddViewer(std::string& problem) {
  auto viewer = m_fanout->Add(MostViewers);
  if (viewer == nullptr) {
    problem = m_fanout->HasEnded() ? "the live pictures are being ended"
                                   : fmt::format("there are {} viewers already; close one of them first", MostViewers);
    return nullptr;
  }
  Wake();
  m_status->AskNow();
  return viewer;
}

void LiveHub::AddSink(const std::shared_ptr<RecordSink>& sink) {
  {
    const std::lock_guard lock(m_sinksMutex);
    m_sinks.push_back(sink);
  }
  Wake();
}

std::size_t LiveHub::CountViewers() const {
  return m_fanout->Count();
}

bool LiveHub::AskCameraNames(std::array<std::string, 2>& names, milliseconds patience, std::string& problem) const {
  Fanout fanout;
  TimeLine timeLine;
  const auto stream = RecorderStream::Open(m_controlSocket, fanout, timeLine, patience, problem);
  if (stream == nullptr) return false;
  names = stream->GetCameraNames();
  return true;
}

void LiveHub::RunBefore() {
  m_status->Start();
}

void LiveHub::RunAfter() {
  m_status->Stop();
  m_stream.reset();
  m_isConnected = false;
}

void LiveHub::Stopping() {
  m_status->Cancel();
  m_fanout->End();
}

std::vector<std::shared_ptr<RecordSink>> LiveHub::GetSinks() {
  const std::lock_guard lock(m_sinksMutex);
  std::erase_if(m_sinks, [](const auto& sink) { return sink.expired(); });
  std::vector<std::shared_ptr<RecordSink>> sinks;
  for (const auto& weak : m_sinks) {
    if (auto sink = weak.lock()) sinks.push_back(std::move(sink));
  }
  return sinks;
}

/// Somebody looks, or has within KeptAfterLast.
bool LiveHub::IsWanted(bool hasSinks) {
  const auto now = std::chrono::steady_clock::now();
  const bool isLookedAt = hasSinks || m_fanout->Count() > 0;
  if (isLookedAt) m_wantedLast = now;
  return isLookedAt || (m_stream != nullptr && now - m_wantedLast < KeptAfterLast);
}

void LiveHub::Run() {
  const auto sinks = GetSinks();
  if (!IsWanted(!sinks.empty())) {
    m_stream.reset();
    m_isConnected = false;
    m_fanout->Forget();
    m_goneReason.clear();
    m_pause = milliseconds(0);
    WaitForCancel(Idle);
  } else if (m_stream == nullptr) {
    Connect();
  } else {
    Serve(sinks);
  }
}

void LiveHub::Connect() {
  std::string problem;
  m_stream = RecorderStream::Open(m_controlSocket, *m_fanout, *m_timeLine, AnswerWithin, problem);
  m_isConnected = m_stream != nullptr;
  if (m_stream == nullptr) {
    TellGone(problem);
    m_pause = std::clamp(m_pause * 2, FirstPause, LongestPause);
    WaitForCancel(m_pause);
    return;
  }
  m_pause = milliseconds(0);
  if (!m_goneReason.empty()) Kbase::Klog::Logger::GetInstance().Info(Tag, "the recorder is back");
  m_goneReason.clear();
  m_fanout->PublishJson(R"({"recorder":"back"})", "recorder");
}

/// One record, so that Run looks at who looks between two.
void LiveHub::Serve(const std::vector<std::shared_ptr<RecordSink>>& sinks) {
  std::string problem;
  if (m_stream->Serve(RecordWithin, sinks, problem)) return;
  m_stream.reset();
  m_isConnected = false;
  m_fanout->Forget();
  TellGone(problem);
  m_pause = FirstPause;
  WaitForCancel(m_pause);
}

/// Each reason once, however long it lasts.
void LiveHub::TellGone(const std::string& reason) {
  if (reason == m_goneReason) return;
  m_goneReason = reason;
  Kbase::Klog::Logger::GetInstance().Warning(Tag, "no live streams: " + reason);
  const Kbase::Json::Object message{{"recorder", "gone"}, {"reason", reason}};
  m_fanout->PublishJson(Kbase::Json::Print(message), "recorder");
}

}  // namespace Tavi::Web
