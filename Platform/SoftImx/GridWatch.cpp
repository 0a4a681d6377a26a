// Whether a camera's own H.264 keeps to the grid of key frames that readers of the stream count on.
#include "SoftImx/GridWatch.h"

#include <utility>

namespace SoftImx {
namespace {

/// Some cameras send a second IDR frame soon after their first.
constexpr int ForgivenEarlyIdrs = 1;

}  // namespace

GridWatch::Verdict GridWatch::Take(const UnitFacts& unit) {
  if (m_verdict == Verdict::Open) m_verdict = Judge(unit);
  return m_verdict;
}

GridWatch::Verdict GridWatch::Judge(const UnitFacts& unit) {
  if (unit.hasB) return Stray("it has B frames");
  ++m_taken;
  const bool isFirst = !m_hasBegun;
  if (!unit.isIdr) {
    const unsigned waited = isFirst ? m_taken : ++m_sinceIdr;
    return waited >= m_interval + (isFirst ? 1 : 0)
               ? Stray("no key frame came in " + std::to_string(waited + 1) + " frames")
               : Verdict::Open;
  }
  if (!unit.IsEntry()) return Stray("a key frame has no parameter sets");
  const unsigned distance = std::exchange(m_sinceIdr, 0) + 1;
  m_hasBegun = true;
  if (isFirst) return Verdict::Open;
  if (distance == m_interval) return Verdict::Obeys;
  return ++m_early > ForgivenEarlyIdrs ? Stray("a key frame came after " + std::to_string(distance) + " frames")
                                       : Verdict::Open;
}

GridWatch::Verdict GridWatch::Stray(std::string reason) {
  m_reason = std::move(reason);
  return Verdict::Strays;
}

}  // namespace SoftImx
