// The one connection to the recorder's live streams, and what all viewers are given of it.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Fleet/Web/Live/LiveViewer.h"
#include "Fleet/Web/Live/RecordSink.h"
#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Web {

class Fanout;
class RecorderStream;
class StatusPoll;
class TimeLine;

/// Is connected to the recorder while somebody looks, and ten seconds longer; connects anew with growing pauses when
/// the recorder goes, which viewers are told. Its thread is "LIVE-HUB", a second one, "LIVE-STATUS", asks for the
/// status. Start() begins; Stop() waits for both, two seconds at most, and ends all viewers for good. Everything below
/// is thread-safe.
class LiveHub : public Kbase::Interfaces::IThread {
 public:
  static constexpr std::size_t MostViewers = 32;
  static constexpr std::chrono::seconds KeptAfterLast{10};

  explicit LiveHub(std::string controlSocket);
  ~LiveHub() override;

  /// Null, with one sentence in `problem`, when there are MostViewers already or the hub is stopped. What it gives
  /// begins with what is known already: the recorder's state, init segments, pictures from the newest key frame on.
  /// It may outlive the hub.
  std::shared_ptr<LiveViewer> AddViewer(std::string& problem);
  /// `sink` takes records until it is let go.
  void AddSink(const std::shared_ptr<RecordSink>& sink);

  [[nodiscard]] std::size_t CountViewers() const;
  [[nodiscard]] bool IsConnected() const { return m_isConnected.load(); }
  /// The cameras' names in the recorder's settings, empty for one that is not recorded: asks on a connection of its
  /// own, for `patience` at most. False, with one sentence in `problem`, when the recorder does not answer.
  bool AskCameraNames(std::array<std::string, 2>& names, std::chrono::milliseconds patience,
                      std::string& problem) const;

 private:
  void RunBefore() override;
  void Run() override;
  void RunAfter() override;
  void Stopping() override;
  bool IsWanted(bool hasSinks);
  void Connect();
  void Serve(const std::vector<std::shared_ptr<RecordSink>>& sinks);
  void TellGone(const std::string& reason);
  std::vector<std::shared_ptr<RecordSink>> GetSinks();

  const std::string m_controlSocket;
  const std::shared_ptr<Fanout> m_fanout;
  const std::unique_ptr<StatusPoll> m_status;
  std::mutex m_sinksMutex;
  std::vector<std::weak_ptr<RecordSink>> m_sinks;
  std::atomic<bool> m_isConnected{false};
  // The thread's own.
  const std::unique_ptr<TimeLine> m_timeLine;
  std::unique_ptr<RecorderStream> m_stream;
  std::chrono::steady_clock::time_point m_wantedLast;
  /// Before it is tried again to connect.
  std::chrono::milliseconds m_pause{0};
  /// What viewers were told last, empty for that it is there.
  std::string m_goneReason;
};

}  // namespace Tavi::Web
