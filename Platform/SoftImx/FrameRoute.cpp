// Which frames of a stream are encoded, and for which the camera's own encoding is taken.
#include "SoftImx/FrameRoute.h"

#include "SoftImx/AccessUnit.h"

namespace SoftImx {

void FrameRoute::Restart(unsigned interval) {
  *this = FrameRoute();
  m_interval = interval;
}

FrameRoute::Mode FrameRoute::Begin(GstBuffer* unit) {
  if (unit == nullptr) return Mode::Encoding;
  if (Inspect(unit).IsEntry()) return Mode::Taking;
  return ++m_skipped > m_interval ? Mode::Encoding : Mode::Open;
}

FrameRoute::Step FrameRoute::Take(GstBuffer* frame) {
  GstBuffer* unit = UnitOf(frame);
  m_hasJustLeft = false;
  if (m_mode == Mode::Open) m_mode = Begin(unit);
  if (m_mode == Mode::Open) return Step::Skip;
  if (m_mode == Mode::Taking) {
    const bool isKeyDue = m_count % m_interval == 0;
    m_hasJustLeft = isKeyDue && (unit == nullptr || !Inspect(unit).IsEntry());
    if (m_hasJustLeft) {
      m_mode = Mode::Encoding;
    } else if (unit == nullptr) {
      return Step::Skip;
    }
  }
  ++m_count;
  return m_mode == Mode::Taking ? Step::TakeUnit : Step::Encode;
}

}  // namespace SoftImx
