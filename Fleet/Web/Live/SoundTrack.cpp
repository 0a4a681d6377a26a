// The sound's MP3 frames for browsers.
#include "Fleet/Web/Live/SoundTrack.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstdlib>

#include "Fleet/Web/Live/Fanout.h"
#include "Fleet/Web/Live/TimeLine.h"
#include "KMedia/Mp3/Mp3Frames.h"

namespace Tavi::Web {
namespace {

/// Frames follow each other by their samples; only what is off by more than a few frames is a gap.
constexpr int LargestSlipMs = 60;
constexpr int MsPerSecond = 1000;
constexpr int PartsPerSecond = 10;
/// What browsers are asked for.
constexpr const char* MimeType = "audio/mpeg";

}  // namespace

void SoundTrack::Take(const LiveUnit& unit, bool withLevel) {
  const auto mp3 = KMedia::Mp3::SplitMp3Frames(unit.bytes);
  if (mp3.frames.empty() || mp3.sampleRate <= 0 || mp3.samplesPerFrame <= 0) return;
  if (mp3.sampleRate != m_sampleRate) Begin(mp3.sampleRate);
  if (unit.isAfterGap) m_fanout.PublishGap(SoundIndex);
  const std::int64_t timeNs = std::max<std::int64_t>(unit.timeNs, 0);
  const std::int64_t sample = timeNs / NsPerSecond * m_sampleRate + timeNs % NsPerSecond * m_sampleRate / NsPerSecond;
  const std::int64_t slip = sample - m_sample;
  if (std::abs(slip) * MsPerSecond > std::int64_t{LargestSlipMs} * m_sampleRate) {
    Publish();
    // What was given out already is not taken back.
    m_sample = std::max(sample, m_sample);
  }
  for (const auto& frame : mp3.frames) {
    Add(frame, mp3.samplesPerFrame);
    if (withLevel) Measure(frame);
  }
}

void SoundTrack::Begin(int sampleRate) {
  Publish();
  m_sample = m_sampleRate > 0 ? m_sample * sampleRate / m_sampleRate : 0;
  m_sampleRate = sampleRate;
  m_level.Begin(sampleRate);
  m_fanout.PublishInit(SoundIndex, MimeType, {});
}

void SoundTrack::Add(std::span<const std::uint8_t> frame, int samples) {
  if (m_part.empty()) {
    const auto seconds = std::bit_cast<std::uint64_t>(GetSeconds(m_sample));
    for (int shift = 56; shift >= 0; shift -= 8) m_part.push_back(static_cast<std::uint8_t>(seconds >> shift));
  }
  m_part.insert(m_part.end(), frame.begin(), frame.end());
  m_samples += samples;
  m_sample += samples;
  if (m_samples * PartsPerSecond >= m_sampleRate) Publish();
}

void SoundTrack::Measure(std::span<const std::uint8_t> frame) {
  if (const auto level = m_level.Take(frame)) {
    m_fanout.PublishJson(fmt::format(R"({{"level":{{"peakDbfs":{:.1f},"rmsDbfs":{:.1f}}},"t":{:.3f}}})",
                                     level->peakDbfs, level->rmsDbfs, GetSeconds(m_sample)));
  }
}

void SoundTrack::Publish() {
  if (!m_part.empty()) m_fanout.PublishFragment(SoundIndex, m_part, true);
  m_part.clear();
  m_samples = 0;
}

double SoundTrack::GetSeconds(std::int64_t sample) const {
  return static_cast<double>(sample) / m_sampleRate;
}

}  // namespace Tavi::Web
