// One camera's access units as fragments for browsers.
#include "Fleet/Web/Live/CameraTrack.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "Fleet/Web/Live/Fanout.h"
#include "Fleet/Web/Live/TimeLine.h"
#include "KMedia/H264/AnnexB.h"
#include "KMedia/H264/ParameterSets.h"
#include "Kbase/Klog/Logger.h"

namespace Tavi::Web {
namespace {

using KMedia::H264::NalType;
using KMedia::H264::NalUnit;

/// A picture that is shown before anybody knows for how long: of 30 a second.
constexpr std::int64_t FirstDuration = FragmentMuxer::TicksPerSecond / 30;
/// What stands still for longer, and goes on with a key frame, is a break; the picture need not fill it.
constexpr std::int64_t LongestDuration = FragmentMuxer::TicksPerSecond;

/// "avc1." and profile, constraints and level (RFC 6381, 3.3), which begin a sequence parameter set; empty without one.
std::string DescribeCodec(KMedia::H264::Bytes parameterSets) {
  NalUnit unit;
  for (std::size_t offset = 0; KMedia::H264::NextNalUnit(parameterSets, offset, unit);) {
    if (unit.type != NalType::Sps || unit.payload.size() < 4) continue;
    return fmt::format("avc1.{:02X}{:02X}{:02X}", unit.payload[1], unit.payload[2], unit.payload[3]);
  }
  return {};
}

/// Rounded down: 11 ns each.
std::int64_t ToTicks(std::int64_t ns) {
  return ns / NsPerSecond * FragmentMuxer::TicksPerSecond +
         ns % NsPerSecond * FragmentMuxer::TicksPerSecond / NsPerSecond;
}

}  // namespace

void CameraTrack::Take(const LiveUnit& unit) {
  const std::int64_t ticks = ToTicks(std::max<std::int64_t>(unit.timeNs, 0));
  // After a gap pictures would refer to what is not there.
  const bool isBreak = unit.isAfterGap || (unit.isKeyFrame && ticks - m_time > LongestDuration);
  if (!m_picture.empty()) Publish(isBreak ? m_duration : std::max<std::int64_t>(ticks - m_time, 1));
  if (unit.isAfterGap) m_fanout.PublishGap(m_index);
  if (unit.isAfterGap && !unit.isKeyFrame) m_muxer.reset();
  if (unit.isKeyFrame && !Begin(unit)) return;
  if (m_muxer == nullptr) return;
  m_picture = unit.bytes;
  m_time = std::max(ticks, m_time + 1);
  m_isKeyFrame = unit.isKeyFrame;
}

/// Whether pictures can be shown from this key frame on.
bool CameraTrack::Begin(const LiveUnit& unit) {
  const auto video = KMedia::H264::SplitAccessUnits(unit.bytes);
  if (m_muxer != nullptr && (video.parameterSets == m_parameterSets || video.parameterSets.empty())) return true;
  m_muxer.reset();
  const std::string codec = DescribeCodec(video.parameterSets);
  const auto size = KMedia::H264::ReadPictureSize(video);
  std::string problem = "its parameter sets cannot be read";
  if (!codec.empty() && size.width > 0 && size.height > 0) {
    m_muxer = FragmentMuxer::Open(FragmentMuxer::Video{video.parameterSets, size.width, size.height}, problem);
  }
  if (m_muxer == nullptr) {
    if (!m_isRefused) {
      Kbase::Klog::Logger::GetInstance().Warning(
          "Live", fmt::format("{} is not shown live: {}", MediaStreamNames[m_index], problem));
    }
    m_isRefused = true;
    return false;
  }
  m_isRefused = false;
  m_parameterSets = video.parameterSets;
  m_duration = FirstDuration;
  m_fanout.PublishInit(m_index, codec, m_muxer->GetInit());
  return true;
}

void CameraTrack::Publish(std::int64_t duration) {
  if (m_muxer != nullptr && m_muxer->Add(m_picture, m_time, duration, m_isKeyFrame)) {
    if (const auto fragment = m_muxer->TakeFragment(); !fragment.empty()) {
      m_fanout.PublishFragment(m_index, fragment, m_isKeyFrame);
    }
  }
  m_duration = duration;
  m_picture.clear();
}

}  // namespace Tavi::Web
