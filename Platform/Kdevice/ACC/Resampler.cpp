// Samples of whatever rate as samples of 100 Hz.
#include "Kdevice/ACC/Resampler.h"

namespace Kdevice::ACC {

bool Resampler::Feed(Nanoseconds at, const Mounting::Vector& g) {
  const bool follows = m_isRunning && at > m_at && at - m_at <= LongestGap;
  if (!follows) {
    const bool isFirst = !m_isRunning;
    m_isRunning = true;
    m_at = at;
    m_g = g;
    m_end = at + Period;
    m_area = {};
    return isFirst;
  }
  const Nanoseconds from = m_at;
  const Mounting::Vector before = m_g;
  for (; m_end <= at; m_end += Period) {
    const auto part = static_cast<float>((m_end - from).count()) / static_cast<float>((at - from).count());
    Mounting::Vector between{};
    for (std::size_t i = 0; i < g.size(); ++i) between[i] = before[i] + (g[i] - before[i]) * part;
    Add(m_end, between);
    Mounting::Vector mean{};
    for (std::size_t i = 0; i < g.size(); ++i)
      mean[i] = static_cast<float>(m_area[i] / static_cast<double>(Period.count()));
    m_area = {};
    m_sink(mean);
  }
  Add(at, g);
  return true;
}

void Resampler::Add(Nanoseconds at, const Mounting::Vector& to) {
  const auto width = static_cast<double>((at - m_at).count());
  for (std::size_t i = 0; i < to.size(); ++i) m_area[i] += width * static_cast<double>(m_g[i] + to[i]) / 2.0;
  m_at = at;
  m_g = to;
}

}  // namespace Kdevice::ACC
