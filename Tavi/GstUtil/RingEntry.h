// Making a ring's next entry of a media buffer.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/GstUtil/GstRef.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::GstUtil {

/// Appends an entry that holds `buffer` and takes over the caller's reference; a null buffer is ignored. `arguments`
/// follow id and buffer in the entry's constructor, where nothing may throw behind its base's. True for the ring's
/// first entry. Without memory for the entry std::bad_alloc leaves and the buffer is released.
template <class Entry, class... Arguments>
bool AppendBuffer(Kbase::Pipeline::IPipelineElement& ring, GstBuffer* buffer, Arguments&&... arguments) {
  if (buffer == nullptr) return false;
  auto owned = GstRef<GstBuffer>::Adopt(buffer);
  const std::uint64_t id = ring.GetCurrentFrameId() + 1;
  const auto entry = std::make_shared<Entry>(id, owned.Get(), std::forward<Arguments>(arguments)...);
  static_cast<void>(owned.Release());
  ring.AddNext(entry);
  return id == 0;
}

/// Says that a source has delivered its first entry.
inline void LogFirst(const std::string& what) {
  Log::Info("Aquisition " + what + " has been started");
}

}  // namespace Tavi::GstUtil
