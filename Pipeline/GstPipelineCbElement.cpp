// The ring entry that all sources share.
#include "Pipeline/GstPipelineCbElement.h"

#include <utility>

namespace Tavi::GstUtil {

bool IsUsable(const GstBuffer* buffer) {
  return buffer != nullptr && GST_MINI_OBJECT_REFCOUNT_VALUE(buffer) != 0;
}

GstPipelineCbElement::GstPipelineCbElement(std::uint64_t id, GstBuffer* ownedBuffer, std::string sourceName)
    : IPipelineCbElement(id), buffer(ownedBuffer), name(std::move(sourceName)) {}

GstPipelineCbElement::~GstPipelineCbElement() {
  if (IsUsable(buffer)) gst_mini_object_unref(GST_MINI_OBJECT_CAST(buffer));
}

bool GstPipelineCbElement::IsKeyFrame() const {
  return IsUsable(buffer) && !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
}

}  // namespace Tavi::GstUtil
