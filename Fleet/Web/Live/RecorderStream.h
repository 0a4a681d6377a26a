// One connection to the recorder's live streams.
#pragma once

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Control/LiveClient.h"
#include "Fleet/Web/Live/CameraTrack.h"
#include "Fleet/Web/Live/RecordSink.h"
#include "Fleet/Web/Live/SoundTrack.h"

namespace Tavi::Web {

class Fanout;
class TimeLine;

/// Makes messages of one connection's records. Thread-bound; borrows fan-out and time line, which outlive it.
class RecorderStream {
 public:
  using Sinks = std::vector<std::shared_ptr<RecordSink>>;

  /// Null, with one sentence in `problem`, when the recorder does not answer within `timeout` or refuses.
  static std::unique_ptr<RecorderStream> Open(const std::string& controlSocket, Fanout& fanout, TimeLine& timeLine,
                                              std::chrono::milliseconds timeout, std::string& problem);

  using CameraNames = std::array<std::string, 2>;
  /// Of the settings; empty for a camera that is not recorded.
  [[nodiscard]] CameraNames GetCameraNames() const;

  /// Takes the next record, if one comes within `timeout`; `sinks` get it besides. False, with one sentence in
  /// `problem`, when the recorder has ended the connection.
  bool Serve(std::chrono::milliseconds timeout, const Sinks& sinks, std::string& problem);

 private:
  RecorderStream(std::unique_ptr<Recorder::LiveClient> client, Fanout& fanout, TimeLine& timeLine);
  void Take(const Sinks& sinks);
  void TakeSensor(LiveStream stream, double seconds);
  void Announce();

  const std::unique_ptr<Recorder::LiveClient> m_client;
  Fanout& m_fanout;
  TimeLine& m_timeLine;
  /// By the records' indices; empty for one that is not known here.
  std::vector<std::optional<LiveStream>> m_streams;
  std::array<CameraTrack, 2> m_cameras;
  SoundTrack m_sound;
  Recorder::LiveRecord m_record;
  bool m_isAnnounced = false;
};

}  // namespace Tavi::Web
