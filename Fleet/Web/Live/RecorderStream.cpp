// One connection to the recorder's live streams.
#include "Fleet/Web/Live/RecorderStream.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "Fleet/Web/Live/Fanout.h"
#include "Fleet/Web/Live/TimeLine.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Web {
namespace {

using Recorder::LiveClient;

/// In the order of LiveStream.
constexpr std::array<std::string_view, LiveStreams> Names{"camera0", "camera1", "audio", "gps", "acc", "other"};
static_assert(Names.size() == Recorder::LiveStreamNames.size());

/// Of `object`, if it is one; empty without.
std::string GetText(const Kbase::Json::Object& object, const char* member) {
  const bool isThere = object.is_object() && object.contains(member) && object[member].is_string();
  return isThere ? object[member].get<std::string>() : std::string();
}

std::vector<std::optional<LiveStream>> ReadStreams(const Kbase::Json::Object& reply) {
  std::vector<std::optional<LiveStream>> streams;
  for (const auto& stream : reply.at("streams")) {
    const auto* const found = std::find(Names.begin(), Names.end(), GetText(stream, "stream"));
    const auto index = static_cast<std::uint8_t>(found - Names.begin());
    streams.push_back(found != Names.end() ? std::optional(static_cast<LiveStream>(index)) : std::nullopt);
  }
  return streams;
}

}  // namespace

std::unique_ptr<RecorderStream> RecorderStream::Open(const std::string& controlSocket, Fanout& fanout,
                                                     TimeLine& timeLine, std::chrono::milliseconds timeout,
                                                     std::string& problem) {
  auto client = LiveClient::Open(controlSocket, {}, problem, timeout);
  if (client == nullptr) return nullptr;
  return std::unique_ptr<RecorderStream>(new RecorderStream(std::move(client), fanout, timeLine));
}

RecorderStream::RecorderStream(std::unique_ptr<LiveClient> client, Fanout& fanout, TimeLine& timeLine)
    : m_client(std::move(client)),
      m_fanout(fanout),
      m_timeLine(timeLine),
      m_streams(ReadStreams(m_client->GetReply())),
      m_cameras{CameraTrack(0, fanout), CameraTrack(1, fanout)},
      m_sound(fanout) {}

RecorderStream::CameraNames RecorderStream::GetCameraNames() const {
  CameraNames names;
  for (const auto& stream : m_client->GetReply().at("streams")) {
    if (GetText(stream, "stream") == Names[0]) names[0] = GetText(stream, "name");
    if (GetText(stream, "stream") == Names[1]) names[1] = GetText(stream, "name");
  }
  return names;
}

bool RecorderStream::Serve(std::chrono::milliseconds timeout, const Sinks& sinks, std::string& problem) {
  const auto got = m_client->Next(m_record, timeout, problem);
  if (got == LiveClient::Got::Record) Take(sinks);
  return got != LiveClient::Got::End;
}

void RecorderStream::Take(const Sinks& sinks) {
  if (m_record.stream >= m_streams.size() || !m_streams[m_record.stream]) return;
  const LiveStream stream = *m_streams[m_record.stream];
  const std::int64_t timeNs = m_timeLine.Place(stream, m_record.arrivedNs, m_record.timestampNs);
  if (!m_isAnnounced) Announce();
  if (stream > LiveStream::Sound) {
    TakeSensor(stream, static_cast<double>(timeNs) / static_cast<double>(NsPerSecond));
    return;
  }
  const auto unit = std::make_shared<const LiveUnit>(
      LiveUnit{stream, m_record.isKeyFrame, m_record.isAfterGap, timeNs, std::move(m_record.payload)});
  for (const auto& sink : sinks) sink->Take(unit);
  if (stream == LiveStream::Sound) {
    // Only what costs something is left out while nobody looks: a page that is opened anew goes on at once.
    m_sound.Take(*unit, m_fanout.Count() > 0);
  } else {
    m_cameras[static_cast<std::size_t>(stream)].Take(*unit);
  }
}

void RecorderStream::TakeSensor(LiveStream stream, double seconds) {
  const std::string_view object(reinterpret_cast<const char*>(m_record.payload.data()), m_record.payload.size());
  // One message of a strange recorder must not make all of the page's text unreadable.
  if (Kbase::Json::Parse(object).is_discarded()) return;
  const std::string_view name = Names[static_cast<std::size_t>(stream)];
  m_fanout.PublishJson(fmt::format(R"({{"{}":{},"t":{:.3f}}})", name, object, seconds), name);
}

void RecorderStream::Announce() {
  m_isAnnounced = true;
  auto reply = m_client->GetReply();
  reply["zeroSteadyNs"] = m_timeLine.GetZeroNs().value_or(0);
  m_fanout.PublishJson("{\"live\":" + Kbase::Json::Print(reply) + "}", "live");
}

}  // namespace Tavi::Web
