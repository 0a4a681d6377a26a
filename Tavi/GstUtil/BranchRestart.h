// Starting the elements of one branch anew while the rest of its pipeline plays on.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::GstUtil {

/// Keeps the elements of a branch, the source first. TakeDown, BringUp and TryOpen are called by one thread at a time,
/// with the pipeline's own state changes excluded; everything else is thread-safe once the elements are there.
class BranchRestart {
 public:
  /// Shares the elements; null ones are left out.
  void Keep(const std::vector<GstElement*>& elements);
  /// False without elements: such a branch has nothing to start anew.
  [[nodiscard]] bool IsPossible() const { return !m_elements.empty(); }
  /// Takes the branch to NULL, the sinks first, so that whoever pushes into it comes back. The pipeline's state changes
  /// leave it out from then on.
  void TakeDown();
  /// Opens the source of a branch that is down, for the start to find it open: some drivers take seconds to list what
  /// they can do. False when it cannot be opened; what is wrong with it is then the branch's problem.
  bool TryOpen();
  /// Has a branch that is down take part in the pipeline's state changes again.
  void Release();
  /// Brings it to where its pipeline is. Time stamps go on by the pipeline's running time.
  void BringUp(GstElement* pipeline);
  /// The object is one of the elements, or within one.
  [[nodiscard]] bool Owns(GstObject* object) const;
  /// What keeps the branch from delivering, by itself or by its last try to be opened; empty when nothing is known.
  [[nodiscard]] std::string GetProblem() const;
  void SetProblem(const std::string& problem);
  /// How often it was brought up again.
  [[nodiscard]] std::uint64_t GetCount() const { return m_count; }

 private:
  std::vector<GstRef<GstElement>> m_elements;
  std::atomic<std::uint64_t> m_count{0};
  mutable std::mutex m_problemMutex;
  std::string m_problem;
};

}  // namespace Tavi::GstUtil
