// Leads a camera's own H.264 past the decoder, so that each decoded frame bears the access unit that it came from.
#include "SoftImx/UnitRelay.h"

#include <cstddef>
#include <utility>

namespace SoftImx {
namespace {

using Verdict = GridWatch::Verdict;

/// More than any decoder holds back of a stream without B frames.
constexpr std::size_t MostUnderWay = 64;

}  // namespace

UnitRelay::UnitRelay(unsigned interval, Report report) : m_watch(interval), m_report(std::move(report)) {}

UnitRelay::~UnitRelay() {
  for (GstBuffer* unit : m_units) gst_buffer_unref(unit);
}

void UnitRelay::Take(GstBuffer* unit) {
  bool isNew = false;
  Verdict verdict = Verdict::Open;
  {
    const std::lock_guard lock(m_mutex);
    if (m_verdict == Verdict::Open) {
      m_verdict = m_watch.Take(Inspect(unit));
      isNew = m_verdict != Verdict::Open;
      if (m_verdict == Verdict::Obeys) m_fromTime = GST_BUFFER_PTS(unit);
    }
    verdict = m_verdict;
  }
  if (verdict == Verdict::Obeys) Keep(unit);
  if (isNew) m_report(verdict == Verdict::Obeys, m_watch.GetReason());
}

void UnitRelay::Keep(GstBuffer* unit) {
  // A copy: the recording keeps it for longer than the camera can spare one of its buffers.
  GstBuffer* own = gst_buffer_copy_deep(unit);
  GstBuffer* oldest = nullptr;
  {
    const std::lock_guard lock(m_mutex);
    m_units.push_back(own);
    if (m_units.size() > MostUnderWay) {
      oldest = m_units.front();
      m_units.pop_front();
    }
  }
  gst_clear_buffer(&oldest);
}

bool UnitRelay::Passes(GstClockTime frameTime) {
  const std::lock_guard lock(m_mutex);
  if (m_isOpen) return true;
  m_isOpen = m_verdict == Verdict::Strays || (m_verdict == Verdict::Obeys && frameTime >= m_fromTime);
  return m_isOpen;
}

bool UnitRelay::IsObeying() {
  const std::lock_guard lock(m_mutex);
  return m_verdict == Verdict::Obeys;
}

GstBuffer* UnitRelay::Attach(GstBuffer* frame) {
  const GstClockTime time = GST_BUFFER_PTS(frame);
  const std::lock_guard lock(m_mutex);
  std::size_t found = 0;
  while (found < m_units.size() && GST_BUFFER_PTS(m_units[found]) != time) ++found;
  if (found == m_units.size()) return frame;
  // What stands before it was not decoded and is no use without its frame.
  for (; found > 0; --found) {
    gst_buffer_unref(m_units.front());
    m_units.pop_front();
  }
  GstBuffer* writable = gst_buffer_make_writable(frame);
  AttachUnit(writable, m_units.front());
  gst_buffer_unref(m_units.front());
  m_units.pop_front();
  return writable;
}

}  // namespace SoftImx
