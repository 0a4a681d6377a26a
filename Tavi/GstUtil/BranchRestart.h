// Starting the elements of one branch anew while the rest of its pipeline plays on.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::GstUtil {

/// Keeps the elements of a branch, the source first. Take and bring are called by one thread at a time, with the
/// pipeline's own state changes excluded; the count is thread-safe.
class BranchRestart {
 public:
  /// Shares the elements; null ones are left out.
  void Keep(const std::vector<GstElement*>& elements);
  /// False without elements: such a branch has nothing to start anew.
  [[nodiscard]] bool IsPossible() const { return !m_elements.empty(); }
  /// Takes the branch to NULL, the sinks first, so that whoever pushes into it comes back.
  void TakeDown();
  /// Brings it to where its pipeline is. Time stamps go on by the pipeline's running time.
  void BringUp(GstElement* pipeline);
  /// How often it was brought up again.
  [[nodiscard]] std::uint64_t GetCount() const { return m_count; }

 private:
  std::vector<GstRef<GstElement>> m_elements;
  std::atomic<std::uint64_t> m_count{0};
};

}  // namespace Tavi::GstUtil
