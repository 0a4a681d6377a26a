// Key frames stand at the multiples of a camera's rate in its ring.
#include "Tavi/PipelineCollect/KeyFrameGrid.h"

#include <cstdint>

namespace Tavi::PipelineCollect {
namespace {

using Kbase::Pipeline::IPipelineElement;

/// Looks at the entries around one position, told apart from those of an earlier or later lap by their ids.
class Neighbourhood {
 public:
  Neighbourhood(const IPipelineElement& ring, unsigned int pos, std::uint64_t id)
      : m_ring(ring), m_pos(pos), m_id(id) {}

  [[nodiscard]] unsigned int PosAt(int distance) const {
    return m_ring.SeekRelative(static_cast<int>(m_pos), -distance);
  }
  [[nodiscard]] bool Exists(int distance) const { return Find(distance) != nullptr; }
  [[nodiscard]] bool IsKeyFrame(int distance) const {
    const auto entry = Find(distance);
    return entry && entry->IsKeyFrame();
  }

 private:
  [[nodiscard]] IPipelineElement::Entry Find(int distance) const {
    auto entry = m_ring.GetElementAt(PosAt(distance));
    const auto id = static_cast<std::uint64_t>(static_cast<std::int64_t>(m_id) + distance);
    return entry && entry->frameId == id ? entry : nullptr;
  }

  const IPipelineElement& m_ring;
  const unsigned int m_pos;
  const std::uint64_t m_id;
};

}  // namespace

unsigned int AlignToKeyFrame(const IPipelineElement& ring, unsigned int pos, unsigned int rate) {
  const auto entry = ring.GetElementAt(pos);
  if (!entry || rate == 0) return pos;
  const Neighbourhood around(ring, pos, entry->frameId);
  const auto remainder = static_cast<int>(pos % rate);
  const int rounding = pos % rate <= rate / 2 ? -remainder : static_cast<int>(rate) - remainder;
  if (around.IsKeyFrame(rounding)) return around.PosAt(rounding);
  for (int distance = 0; around.Exists(distance); --distance) {
    if (around.IsKeyFrame(distance)) return around.PosAt(distance);
  }
  for (int distance = 1; around.Exists(distance); ++distance) {
    if (around.IsKeyFrame(distance)) return around.PosAt(distance);
  }
  return pos;
}

}  // namespace Tavi::PipelineCollect
