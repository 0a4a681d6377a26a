// The one connection to the recorder's live streams, and what all viewers are given of it.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Fleet/Web/Live/LiveViewer.h"
#include "Fleet/Web/Live/RecordSink.h"
#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Web {

class RecorderStream;
class StatusPoll;

/// Is connected to the recorder while somebody looks, and ten seconds longer; connects anew with growing pauses when
/// the recorder goes, which viewers are told. Its thread is "LIVE-HUB", a second one, "LIVE-STATUS", asks for the
/// status. Start() begins, Stop() ends all viewers. AddViewer, AddSink and what Get tells are thread-safe.
class LiveHub : public Kbase::Interfaces::IThread {
 public:
  static constexpr std::size_t MostViewers = 32;
  static constexpr std::chrono::seconds KeptAfterLast{10};

  explicit LiveHub(std::string controlSocket);
  ~LiveHub() override;

  /// Null, with one sentence in `problem`, when there are MostViewers already or the hub is stopped. What it gives
  /// begins with what is known already: the recorder's state, init segments, pictures from the newest key frame on.
  std::shared_ptr<LiveViewer> AddViewer(std::string& problem);
  /// `sink` takes records until it is let go.
  void AddSink(const std::shared_ptr<RecordSink>& sink);

  [[nodiscard]] std::size_t CountViewers() const;
  [[nodiscard]] bool IsConnected() const { return m_isConnected.load(); }
  /// The cameras' names in the recorder's settings, empty while they are not known: asks the recorder once, without
  /// staying connected. Waits for it up to `patience`. False, with one sentence in `problem`, when it does not answer.
  bool AskCameraNames(std::array<std::string, 2>& names, std::chrono::milliseconds patience,
                      std::string& problem) const;

 private:
  void Run() override;
  void RunAfter() override;
  void Stopping() override;
  /// False when nobody has looked for KeptAfterLast.
  bool IsWanted();
  void Connect();
  void Disconnect(const std::string& reason);
  void Serve();
  std::vector<std::shared_ptr<RecordSink>> GetSinks();

  const std::string m_controlSocket;
  const std::shared_ptr<Fanout> m_fanout;
  const std::unique_ptr<StatusPoll> m_status;
  std::unique_ptr<RecorderStream> m_stream;
  std::mutex m_sinksMutex;
  std::vector<std::weak_ptr<RecordSink>> m_sinks;
  std::atomic<bool> m_isConnected{false};
  std::chrono::steady_clock::time_point m_wantedLast;
  std::chrono::milliseconds m_pause{0};
  bool m_isGoneTold = false;
};

}  // namespace Tavi::Web
