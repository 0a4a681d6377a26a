// Entries of rings by their time stamps.
#include "Tavi/PipelineCollect/RingTime.h"

#include <algorithm>

#include "Tavi/GstUtil/GstPipelineCbElement.h"

namespace Tavi::PipelineCollect {

using GstUtil::GstPipelineCbElement;
using Kbase::Pipeline::IPipelineElement;

namespace {

bool ReadTime(const IPipelineElement& ring, unsigned int pos, std::uint64_t& timestampNs) {
  const auto time = GetTimestamp(ring.GetElementAt(pos).get());
  timestampNs = time.value_or(timestampNs);
  return time.has_value();
}

/// Time stamps in nanoseconds, both included.
struct Interval {
  std::uint64_t from = 0;
  std::uint64_t to = 0;

  /// How far `time` lies outside.
  [[nodiscard]] std::uint64_t DistanceOf(std::uint64_t time) const {
    if (time < from) return from - time;
    return time > to ? time - to : 0;
  }
};

/// Walks from the entry `back` places before `present` to the one within `wanted`, or to the nearest one: it never
/// turns round and never leaves the ring. Nothing when all entries lie before.
std::optional<unsigned int> FindNearest(const IPipelineElement& ring, int present, int back, Interval wanted) {
  const int oldest = static_cast<int>(ring.GetRingSize()) - 1;
  unsigned int pos = ring.SeekRelative(present, back);
  std::uint64_t time = 0;
  int direction = 0;
  while (ReadTime(ring, pos, time) && wanted.DistanceOf(time) != 0) {
    const int step = time < wanted.from ? -1 : 1;
    if (direction == 0) direction = step;
    if (direction != step) {
      // No entry lies within: this one and the one before it are the neighbours on either side.
      const unsigned int other = ring.SeekRelative(present, back - direction);
      std::uint64_t otherTime = 0;
      const bool nearer = ReadTime(ring, other, otherTime) && wanted.DistanceOf(otherTime) < wanted.DistanceOf(time);
      return nearer ? other : pos;
    }
    const int nextBack = back + direction;
    const unsigned int next = ring.SeekRelative(present, nextBack);
    if (nextBack < 0) return {};
    if (nextBack > oldest || !ring.GetElementAt(next)) return pos;
    back = nextBack;
    pos = next;
  }
  return pos;
}

}  // namespace

std::optional<std::uint64_t> GetTimestamp(const Kbase::Pipeline::IPipelineCbElement* entry) {
  const auto* media = dynamic_cast<const GstPipelineCbElement*>(entry);
  if (media == nullptr || !GstUtil::IsUsable(media->buffer) || !GST_BUFFER_PTS_IS_VALID(media->buffer)) return {};
  return GST_BUFFER_PTS(media->buffer);
}

std::chrono::steady_clock::time_point GetMadeAt(const Kbase::Pipeline::IPipelineCbElement* entry) {
  const auto* media = dynamic_cast<const GstPipelineCbElement*>(entry);
  return media != nullptr ? media->GetMadeAt() : std::chrono::steady_clock::now();
}

std::chrono::milliseconds GetAge(const Kbase::Pipeline::IPipelineCbElement* entry) {
  const auto* media = dynamic_cast<const GstPipelineCbElement*>(entry);
  return media != nullptr ? media->GetAge() : std::chrono::milliseconds(0);
}

std::chrono::milliseconds GetAge(const IPipelineElement& ring) {
  return GetAge(ring.RetrieveCurrent().get());
}

bool FindSameTime(const IPipelineElement& ring, const IPipelineElement& reference, int refPos, int frames,
                  unsigned int& pos) {
  const int back = std::clamp(frames, 0, static_cast<int>(ring.GetRingSize()) - 1);
  const auto present = static_cast<int>(ring.GetRingPos());
  pos = ring.SeekRelative(present, back);
  std::uint64_t time = 0;
  Interval wanted;
  if (!ReadTime(ring, pos, time) || !ReadTime(reference, reference.SeekRelative(refPos, 1), wanted.from) ||
      !ReadTime(reference, reference.SeekRelative(refPos, 0), wanted.to)) {
    return false;
  }
  // At the seam between the reference's oldest and newest entry the two are not neighbours in time.
  wanted.from = std::min(wanted.from, wanted.to);
  const auto nearest = FindNearest(ring, present, back, wanted);
  pos = nearest.value_or(pos);
  return nearest.has_value();
}

}  // namespace Tavi::PipelineCollect
