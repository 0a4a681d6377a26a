// Making, adding and linking the elements of a branch.
#pragma once

#include <gst/gst.h>

#include <initializer_list>
#include <vector>

#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::GstUtil {

/// Makes elements, keeps them until the bin has its own references, and remembers whether all could be made.
class BranchParts {
 public:
  /// A new element, borrowed; null, with a line in the log, when GStreamer has none of that name.
  GstElement* Make(const char* factory);
  [[nodiscard]] bool IsComplete() const { return m_complete; }

 private:
  std::vector<GstRef<GstElement>> m_owned;
  bool m_complete = true;
};

/// Adds the elements in the given order, leaving out null ones: those that this branch does not have.
void AddToBin(GstBin* bin, std::initializer_list<GstElement*> elements);

/// Links each element to the next one.
void LinkChain(std::initializer_list<GstElement*> chain);

}  // namespace Tavi::GstUtil
