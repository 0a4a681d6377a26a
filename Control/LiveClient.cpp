// What the recorder's sources deliver, as they deliver it, in another process.
#include "Control/LiveClient.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "Control/Conversation.h"
#include "Control/Protocol.h"
#include "Control/SocketAddress.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Recorder {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;
using Ksystem::FileUtils::UniqueFd;

/// Empty for one that begins a stream.
std::string CheckReply(const Json& reply) {
  if (!reply.is_object()) return "its reply is no JSON object";
  const auto ok = reply.find("ok");
  const auto error = reply.find("error");
  if (ok != reply.end() && ok->is_boolean() && !ok->get<bool>() && error != reply.end() && error->is_string()) {
    return error->get<std::string>();
  }
  const auto streams = reply.find("streams");
  const bool isWhole = ok != reply.end() && *ok == true && streams != reply.end() && streams->is_array();
  return isWhole ? std::string() : "its reply is none to a request for a live stream";
}

/// False when the time is over.
bool WaitForInput(int socket, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  pollfd waiting{socket, POLLIN, 0};
  const int ready = ::poll(&waiting, 1, static_cast<int>(std::clamp<long long>(left, 0, INT_MAX)));
  return ready != 0;
}

}  // namespace

LiveClient::LiveClient(UniqueFd socket, Json reply, std::string rest)
    : m_socket(std::move(socket)),
      m_reply(std::move(reply)),
      m_streams(m_reply["streams"].size()),
      m_rest(std::move(rest)) {}

std::unique_ptr<LiveClient> LiveClient::Open(const std::string& socketPath, const std::vector<std::string>& streams,
                                             std::string& problem, Milliseconds timeout) {
  const auto address = BuildSocketAddress(socketPath, problem);
  if (!address) return nullptr;
  Patience patience;
  patience.timeout = timeout;
  Conversation conversation(patience);
  std::string line;
  std::string rest;
  std::string reason = conversation.Connect(*address);
  if (reason.empty()) reason = conversation.Send(BuildLine(BuildRequest(LiveRequest{streams})));
  if (reason.empty()) reason = conversation.Receive(line, rest);
  if (!reason.empty()) {
    problem = fmt::format("no recorder answers at {}: {}", socketPath, reason);
    return nullptr;
  }
  Json reply = Kbase::Json::Parse(line);
  reason = CheckReply(reply);
  if (reason.empty()) {
    return std::unique_ptr<LiveClient>(new LiveClient(conversation.Release(), std::move(reply), std::move(rest)));
  }
  problem = fmt::format("the recorder at {} gives no live stream: {}", socketPath, reason);
  return nullptr;
}

LiveClient::Got LiveClient::Next(LiveRecord& record, Milliseconds timeout, std::string& problem) {
  const auto deadline = Clock::now() + timeout;
  Got got = m_end.empty() ? FillHeader(deadline) : Got::End;
  if (got == Got::Record) got = Fill(m_payload.data(), m_payload.size(), m_payloadFilled, deadline);
  if (got == Got::Record) HandOut(record);
  if (got == Got::End) problem = m_end;
  return got;
}

/// Record when the header is there, and room for its payload.
LiveClient::Got LiveClient::FillHeader(TimePoint deadline) {
  if (m_header) return Got::Record;
  const Got got = Fill(m_headerBytes.data(), m_headerBytes.size(), m_headerFilled, deadline);
  if (got != Got::Record) return got;
  std::string problem;
  m_header = DecodeLiveHeader(m_headerBytes, problem);
  if (!m_header) return End(std::move(problem));
  if (m_header->stream >= m_streams) {
    return End(fmt::format("a record of stream {} came, and there are but {}", m_header->stream, m_streams));
  }
  m_payload.resize(m_header->payloadBytes);
  m_payloadFilled = 0;
  return Got::Record;
}

/// Record when all `size` bytes are there; what is there of them stays when they are not.
LiveClient::Got LiveClient::Fill(std::uint8_t* target, std::size_t size, std::size_t& filled, TimePoint deadline) {
  const std::size_t held = std::min(size - filled, m_rest.size() - m_restTaken);
  std::copy_n(m_rest.data() + m_restTaken, held, target + filled);
  m_restTaken += held;
  filled += held;
  while (filled < size) {
    const ssize_t got = ::recv(m_socket.Get(), target + filled, size - filled, 0);
    if (got > 0) {
      filled += static_cast<std::size_t>(got);
    } else if (got == 0 || errno == ECONNRESET) {
      const bool isMidRecord = m_header || m_headerFilled > 0;
      return End(isMidRecord ? "the recorder has ended the live stream in the middle of a record"
                             : "the recorder has ended the live stream");
    } else if (errno != EAGAIN && errno != EINTR) {
      return End(fmt::format("the live stream cannot be read: {}", std::strerror(errno)));
    } else if (!WaitForInput(m_socket.Get(), deadline)) {
      return Got::Nothing;
    }
  }
  return Got::Record;
}

LiveClient::Got LiveClient::End(std::string problem) {
  m_end = std::move(problem);
  return Got::End;
}

void LiveClient::HandOut(LiveRecord& record) {
  record.stream = m_header->stream;
  record.isKeyFrame = m_header->isKeyFrame;
  record.isAfterGap = m_header->isAfterGap;
  record.arrivedNs = m_header->arrivedNs;
  record.timestampNs = m_header->timestampNs;
  record.payload.swap(m_payload);
  m_header.reset();
  m_headerFilled = 0;
}

}  // namespace Tavi::Recorder
