// The ring entry that all sources share.
#include "Tavi/GstUtil/GstPipelineCbElement.h"

#include <ctime>
#include <utility>

namespace Tavi::GstUtil {
namespace {

/// The monotonic clock as of the kernel's last tick: a tenth of the price of the exact one, on a producer's thread.
std::chrono::nanoseconds ReadCoarseClock() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace

bool IsUsable(const GstBuffer* buffer) {
  return buffer != nullptr && GST_MINI_OBJECT_REFCOUNT_VALUE(buffer) != 0;
}

GstPipelineCbElement::GstPipelineCbElement(std::uint64_t id, GstBuffer* ownedBuffer, std::string sourceName)
    : IPipelineCbElement(id), buffer(ownedBuffer), name(std::move(sourceName)), m_madeAt(ReadCoarseClock()) {}

std::chrono::milliseconds GstPipelineCbElement::GetAge() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(ReadCoarseClock() - m_madeAt);
}

GstPipelineCbElement::~GstPipelineCbElement() {
  if (IsUsable(buffer)) gst_mini_object_unref(GST_MINI_OBJECT_CAST(buffer));
}

bool GstPipelineCbElement::IsKeyFrame() const {
  return IsUsable(buffer) && !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
}

}  // namespace Tavi::GstUtil
