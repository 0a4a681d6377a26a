// Whether a camera's own H.264 keeps to the grid of key frames that readers of the stream count on.
#pragma once

#include <string>

#include "SoftImx/AccessUnit.h"

namespace SoftImx {

/// Looks at a stream's access units from its first on. Knows after one or two groups of pictures, at the latest after
/// three intervals. Thread-bound.
class GridWatch {
 public:
  enum class Verdict { Open, Obeys, Strays };

  /// `interval`: frames from one IDR frame to the next that are asked for, at least 1.
  explicit GridWatch(unsigned interval) : m_interval(interval) {}

  /// Obeys with an IDR frame that comes as asked: the stream may be used from this unit on. Both verdicts are final.
  Verdict Take(const UnitFacts& unit);
  /// What speaks against the stream; empty unless it strays.
  [[nodiscard]] const std::string& GetReason() const { return m_reason; }

 private:
  Verdict Judge(const UnitFacts& unit);
  Verdict Stray(std::string reason);

  unsigned m_interval;
  unsigned m_taken = 0;
  /// Frames since the last IDR frame; counts once there was one.
  unsigned m_sinceIdr = 0;
  bool m_hasBegun = false;
  int m_early = 0;
  Verdict m_verdict = Verdict::Open;
  std::string m_reason;
};

}  // namespace SoftImx
