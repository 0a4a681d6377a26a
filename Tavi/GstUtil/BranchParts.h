// Making, adding and linking the elements of a branch.
#pragma once

#include <gst/gst.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::GstUtil {

/// Makes elements, keeps them until the bin has its own references, and remembers whether all could be made.
class BranchParts {
 public:
  /// A new element, borrowed; null, with a line in the log, when GStreamer has none of that name.
  GstElement* Make(const char* factory);
  [[nodiscard]] bool IsComplete() const { return m_complete; }

  /// One element of a leg, and where to put it.
  struct Part {
    const char* factory;
    GstElement** target;
  };
  /// Makes a leg that the branch can do without. False, with one line in the log that names `leg`, the branch still
  /// complete and all targets null, when GStreamer has no element of some name.
  bool MakeLeg(const char* leg, std::initializer_list<Part> parts);

 private:
  std::vector<GstRef<GstElement>> m_owned;
  bool m_complete = true;
};

/// Adds the elements in the given order, leaving out null ones: those that this branch does not have.
void AddToBin(GstBin* bin, std::initializer_list<GstElement*> elements);

/// Links each element to the next one, leaving out null ones.
void LinkChain(std::initializer_list<GstElement*> chain);

}  // namespace Tavi::GstUtil
