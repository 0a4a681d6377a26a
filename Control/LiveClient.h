// What the recorder's sources deliver, as they deliver it, in another process.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Control/LiveProtocol.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Recorder {

/// One entry of one source. What `stream`, `isKeyFrame`, `isAfterGap` and the times mean is said at LiveHeader.
struct LiveRecord {
  std::uint8_t stream = 0;
  bool isKeyFrame = false;
  bool isAfterGap = false;
  std::int64_t arrivedNs = 0;
  std::optional<std::int64_t> timestampNs;
  /// An access unit (Annex B), MP3 frames, or one JSON object.
  std::vector<std::uint8_t> payload;
};

/// One connection that the recorder streams on. Thread-bound. The destructor closes it. Whoever reads too slowly loses
/// records, never the recorder: the next one then says so.
class LiveClient {
 public:
  enum class Got { Record, Nothing, End };
  using Milliseconds = std::chrono::milliseconds;

  /// Asks the recorder that listens at `socketPath` for `streams` (LiveStreamNames; all that are enabled when empty)
  /// and waits for its reply for `timeout` at most. Null, with one sentence in `problem`, when nobody answers there or
  /// the recorder refuses.
  static std::unique_ptr<LiveClient> Open(const std::string& socketPath, const std::vector<std::string>& streams,
                                          std::string& problem, Milliseconds timeout = Milliseconds{5000});

  /// The reply as it came: "streams" in the order of the records' indices, "steadyNs" and "time".
  [[nodiscard]] const nlohmann::ordered_json& GetReply() const { return m_reply; }

  /// The next record, waited for no longer than `timeout` (0: not at all). `record` is only changed with Record, and
  /// its memory is used again. End, with one sentence in `problem`, when the recorder has ended the stream or what came
  /// is none; from then on it is always End.
  Got Next(LiveRecord& record, Milliseconds timeout, std::string& problem);

  /// For poll() (POLLIN), borrowed. Call Next without waiting until it gives Nothing before each poll(): what has
  /// arrived with something else does not make it readable.
  [[nodiscard]] int GetDescriptor() const { return m_socket.Get(); }

  LiveClient(const LiveClient&) = delete;
  LiveClient& operator=(const LiveClient&) = delete;

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  LiveClient(Ksystem::FileUtils::UniqueFd socket, nlohmann::ordered_json reply, std::string rest);
  Got Fill(std::uint8_t* target, std::size_t size, std::size_t& filled, TimePoint deadline);
  Got FillHeader(TimePoint deadline);
  Got End(std::string problem);
  void HandOut(LiveRecord& record);

  Ksystem::FileUtils::UniqueFd m_socket;
  nlohmann::ordered_json m_reply;
  std::size_t m_streams;
  /// Received with the reply.
  std::string m_rest;
  std::size_t m_restTaken = 0;
  LiveHeaderBuffer m_headerBytes{};
  std::size_t m_headerFilled = 0;
  /// Empty until the header is whole.
  std::optional<LiveHeader> m_header;
  std::vector<std::uint8_t> m_payload;
  std::size_t m_payloadFilled = 0;
  /// Why it is over; empty while it is not.
  std::string m_end;
};

}  // namespace Tavi::Recorder
