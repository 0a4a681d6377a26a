// One ring entry on its way into one client's socket.
#include "Recorder/Live/OutgoingRecord.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <numeric>

#include "Recorder/Live/SensorText.h"
#include "Tavi/PipelineCollect/RingTime.h"
#include "Tavi/Video/VideoPipelineCbElement.h"

namespace Tavi::Recorder::Live {
namespace {

using GstUtil::GstPipelineCbElement;
using Pipeline::PipelineType;

constexpr std::array<std::uint8_t, 4> StartCode{0, 0, 0, 1};
/// Of one call; a picture in more slices takes several.
constexpr std::size_t PartsAtOnce = 64;

}  // namespace

bool OutgoingRecord::Load(const Entry& entry, PipelineType type, std::uint8_t stream, bool isAfterGap) {
  m_map.emplace(dynamic_cast<const GstPipelineCbElement*>(entry.get()));
  m_entry = entry;
  m_parts.push_back({m_header.data(), m_header.size()});
  const bool isUsable = m_map->IsMapped() && LoadParts(*entry, type);
  const auto payload = std::accumulate(m_parts.begin() + 1, m_parts.end(), std::size_t{0},
                                       [](std::size_t sum, const iovec& part) { return sum + part.iov_len; });
  if (!isUsable || payload == 0 || payload > MaxLivePayloadBytes) {
    Clear();
    return false;
  }
  LiveHeader header;
  header.stream = stream;
  header.isKeyFrame = entry->IsKeyFrame();
  header.isAfterGap = isAfterGap;
  header.payloadBytes = static_cast<std::uint32_t>(payload);
  header.arrivedNs = std::chrono::nanoseconds(PipelineCollect::GetMadeAt(entry.get()).time_since_epoch()).count();
  if (const auto timestamp = PipelineCollect::GetTimestamp(entry.get())) {
    header.timestampNs = static_cast<std::int64_t>(*timestamp);
  }
  m_header = EncodeLiveHeader(header);
  return true;
}

bool OutgoingRecord::LoadParts(const Kbase::Pipeline::IPipelineCbElement& entry, PipelineType type) {
  if (type == PipelineType::Camera0 || type == PipelineType::Camera1) return LoadAccessUnit(entry);
  if (type != PipelineType::Audio) return LoadText(type);
  Add(m_map->GetBytes());
  return true;
}

/// As a byte stream whatever its framing, with parameter sets where a decoder may begin.
bool OutgoingRecord::LoadAccessUnit(const Kbase::Pipeline::IPipelineCbElement& entry) {
  const auto bytes = m_map->GetBytes();
  if (const auto* unit = dynamic_cast<const Video::VideoPipelineCbElement*>(&entry)) m_setup = unit->setup;
  const unsigned int lengthSize = m_setup ? m_setup->lengthSize : 0;
  if (m_setup && entry.IsKeyFrame() && !Video::HasParameterSets(bytes, lengthSize)) Add(m_setup->parameterSets);
  if (lengthSize == 0) {
    Add(bytes);
    return !bytes.empty();
  }
  const auto nals = Video::SplitByLengths(bytes, lengthSize);
  for (const auto& nal : nals) {
    Add(StartCode);
    Add(nal);
  }
  return !nals.empty();
}

bool OutgoingRecord::LoadText(PipelineType type) {
  const auto* fix = type == PipelineType::Gps ? m_map->GetRecord<Gps::GpsData>() : nullptr;
  const auto* block = type == PipelineType::Acc ? m_map->GetRecord<Accel::AccDataPak>() : nullptr;
  const auto* sample = type == PipelineType::Other ? m_map->GetRecord<Other::OtherDataPak>() : nullptr;
  if (fix != nullptr) m_text = DescribeFix(*fix);
  if (block != nullptr) m_text = DescribeBlock(*block);
  if (sample != nullptr) m_text = DescribeState(*sample);
  Add({reinterpret_cast<const std::uint8_t*>(m_text.data()), m_text.size()});
  return !m_text.empty();
}

/// sendmsg() takes what it only reads as if it wrote to it.
void OutgoingRecord::Add(std::span<const std::uint8_t> bytes) {
  if (!bytes.empty()) m_parts.push_back({const_cast<std::uint8_t*>(bytes.data()), bytes.size()});
}

OutgoingRecord::Sent OutgoingRecord::Send(int socket, std::size_t& sentBytes) {
  sentBytes = 0;
  while (m_part < m_parts.size()) {
    msghdr message{};
    message.msg_iov = m_parts.data() + m_part;
    message.msg_iovlen = std::min(m_parts.size() - m_part, PartsAtOnce);
    const ssize_t size = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (size >= 0) {
      Pass(static_cast<std::size_t>(size));
      sentBytes += static_cast<std::size_t>(size);
    } else if (errno == EAGAIN) {
      return Sent::Part;
    } else if (errno != EINTR) {
      Clear();
      return Sent::Failed;
    }
  }
  Clear();
  return Sent::All;
}

void OutgoingRecord::Pass(std::size_t bytes) {
  while (bytes > 0) {
    iovec& part = m_parts[m_part];
    const std::size_t step = std::min(bytes, part.iov_len);
    part.iov_base = static_cast<std::uint8_t*>(part.iov_base) + step;
    part.iov_len -= step;
    bytes -= step;
    if (part.iov_len == 0) ++m_part;
  }
}

void OutgoingRecord::Clear() {
  m_parts.clear();
  m_part = 0;
  m_text.clear();
  m_setup.reset();
  m_map.reset();
  m_entry.reset();
}

}  // namespace Tavi::Recorder::Live
