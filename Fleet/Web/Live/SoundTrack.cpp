// The sound's MP3 frames as fragments for browsers.
#include "Fleet/Web/Live/SoundTrack.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "Fleet/Web/Live/Fanout.h"
#include "KMedia/Mp3/Mp3Frames.h"
#include "Kbase/Klog/Logger.h"

namespace Tavi::Web {
namespace {

constexpr std::int64_t NsPerSecond = 1'000'000'000;
/// Frames follow each other by their samples; only what is off by more than a few frames is a gap.
constexpr int LargestSlipMs = 60;
constexpr int MsPerSecond = 1000;
constexpr int FragmentsPerSecond = 10;
/// MPEG-1 has these rates from here on, MPEG-2 those below (ISO/IEC 13818-3); MP4 tells them apart.
constexpr int LowestMpeg1Rate = 32'000;

/// RFC 6381, 3.3, with the object types of ISO/IEC 14496-1.
const char* DescribeCodec(int sampleRate) {
  return sampleRate >= LowestMpeg1Rate ? "mp4a.6B" : "mp4a.69";
}

}  // namespace

void SoundTrack::Take(const LiveUnit& unit, bool withLevel) {
  const auto mp3 = KMedia::Mp3::SplitMp3Frames(unit.bytes);
  if (mp3.frames.empty() || mp3.sampleRate <= 0 || mp3.samplesPerFrame <= 0) return;
  const FragmentMuxer::Sound sound{mp3.sampleRate, mp3.channels, mp3.samplesPerFrame};
  if (!Begin(sound)) return;
  if (unit.isAfterGap) m_fanout.PublishGap(SoundIndex);
  const std::int64_t timeNs = std::max<std::int64_t>(unit.timeNs, 0);
  const std::int64_t sample =
      timeNs / NsPerSecond * sound.sampleRate + timeNs % NsPerSecond * sound.sampleRate / NsPerSecond;
  const std::int64_t slip = sample - m_sample;
  if (std::abs(slip) * MsPerSecond > std::int64_t{LargestSlipMs} * sound.sampleRate) {
    Publish();
    // What was given out already is not taken back.
    m_sample = std::max(sample, m_sample);
  }
  for (const auto& frame : mp3.frames) {
    Add(frame);
    if (withLevel) Measure(frame);
  }
}

/// Whether sound of this kind can be given out.
bool SoundTrack::Begin(const FragmentMuxer::Sound& sound) {
  if (m_muxer != nullptr && sound == m_sound) return true;
  Publish();
  std::string problem;
  m_muxer = FragmentMuxer::Open(sound, problem);
  const bool isNew = !(sound == m_sound);
  m_sample = m_sound.sampleRate > 0 ? m_sample * sound.sampleRate / m_sound.sampleRate : 0;
  m_sound = sound;
  if (m_muxer == nullptr) {
    if (isNew) Kbase::Klog::Logger::GetInstance().Warning("Live", "the sound is not played live: " + problem);
    return false;
  }
  m_level.Begin(sound.sampleRate);
  m_fanout.PublishInit(SoundIndex, DescribeCodec(sound.sampleRate), m_muxer->GetInit());
  return true;
}

void SoundTrack::Add(std::span<const std::uint8_t> frame) {
  const int length = m_sound.samplesPerFrame;
  if (m_muxer->Add(frame, m_sample, length, true)) m_samples += length;
  m_sample += length;
  if (m_samples * FragmentsPerSecond >= m_sound.sampleRate) Publish();
}

void SoundTrack::Measure(std::span<const std::uint8_t> frame) {
  if (const auto level = m_level.Take(frame)) {
    m_fanout.PublishJson(fmt::format(R"({{"level":{{"peakDbfs":{:.1f},"rmsDbfs":{:.1f}}},"t":{:.3f}}})",
                                     level->peakDbfs, level->rmsDbfs,
                                     static_cast<double>(m_sample) / m_sound.sampleRate));
  }
}

void SoundTrack::Publish() {
  if (m_muxer == nullptr || m_samples == 0) return;
  m_samples = 0;
  if (const auto fragment = m_muxer->TakeFragment(); !fragment.empty()) {
    m_fanout.PublishFragment(SoundIndex, fragment, true);
  }
}

}  // namespace Tavi::Web
