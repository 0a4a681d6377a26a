// One time line for all of the recorder's streams.
#include "Fleet/Web/Live/TimeLine.h"

namespace Tavi::Web {
namespace {

/// Entries arrive late when the machine is busy; early they cannot be by more than the first one was late.
constexpr std::int64_t LatestNs = 5 * NsPerSecond;
constexpr std::int64_t EarliestNs = -2 * NsPerSecond;
/// The sound card's clock and the steady one drift by some hundred microseconds a second at most.
constexpr std::int64_t LagShare = 64;

constexpr bool IsNear(std::int64_t lagNs) {
  return lagNs > EarliestNs && lagNs < LatestNs;
}

}  // namespace

std::int64_t TimeLine::Place(LiveStream stream, std::int64_t arrivedNs, std::optional<std::int64_t> timestampNs) {
  if (!m_zeroNs) m_zeroNs = arrivedNs;
  if (!timestampNs) return arrivedNs - *m_zeroNs;
  auto& stamps = m_streams[static_cast<std::size_t>(stream)];
  if (!stamps || !DoesContinue(*stamps, arrivedNs, *timestampNs)) stamps = Begin(arrivedNs, *timestampNs);
  const std::int64_t lag = arrivedNs - (*timestampNs + stamps->offsetNs);
  stamps->lagNs += (lag - stamps->lagNs) / LagShare;
  stamps->lastNs = *timestampNs;
  return *timestampNs + stamps->offsetNs - *m_zeroNs;
}

bool TimeLine::DoesContinue(const Stamps& stamps, std::int64_t arrivedNs, std::int64_t timestampNs) const {
  const std::int64_t lag = arrivedNs - (timestampNs + stamps.offsetNs);
  return timestampNs >= stamps.lastNs && IsNear(lag - stamps.lagNs);
}

TimeLine::Stamps TimeLine::Begin(std::int64_t arrivedNs, std::int64_t timestampNs) {
  const std::int64_t offset = arrivedNs - timestampNs;
  if (!m_newestOffsetNs || !IsNear(offset - *m_newestOffsetNs)) m_newestOffsetNs = offset;
  return {*m_newestOffsetNs, offset - *m_newestOffsetNs, timestampNs};
}

}  // namespace Tavi::Web
