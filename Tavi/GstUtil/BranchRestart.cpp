// Starting the elements of one branch anew while the rest of its pipeline plays on.
#include "Tavi/GstUtil/BranchRestart.h"

#include <algorithm>

#include "Tavi/GstUtil/StateTrial.h"

namespace Tavi::GstUtil {
namespace {

bool IsSink(GstElement* element) {
  return GST_OBJECT_FLAG_IS_SET(element, GST_ELEMENT_FLAG_SINK);
}

}  // namespace

void BranchRestart::Keep(const std::vector<GstElement*>& elements) {
  for (GstElement* element : elements) {
    if (element != nullptr) m_elements.push_back(GstRef<GstElement>::Share(element));
  }
}

void BranchRestart::TakeDown() {
  for (const bool sinks : {true, false}) {
    std::for_each(m_elements.rbegin(), m_elements.rend(), [sinks](const auto& element) {
      if (IsSink(element.Get()) != sinks) return;
      gst_element_set_locked_state(element.Get(), TRUE);
      gst_element_set_state(element.Get(), GST_STATE_NULL);
    });
  }
}

bool BranchRestart::TryOpen() {
  SetProblem(TryState(m_elements.front().Get(), GST_STATE_READY));
  return GetProblem().empty();
}

void BranchRestart::Release() {
  for (const auto& element : m_elements) gst_element_set_locked_state(element.Get(), FALSE);
}

void BranchRestart::BringUp(GstElement* pipeline) {
  const auto clock = GstRef<GstClock>::Adopt(gst_element_get_clock(pipeline));
  const GstClockTime baseTime = gst_element_get_base_time(pipeline);
  for (const bool sinks : {true, false}) {
    std::for_each(m_elements.rbegin(), m_elements.rend(), [&](const auto& element) {
      if (IsSink(element.Get()) != sinks) return;
      gst_element_set_locked_state(element.Get(), FALSE);
      gst_element_set_clock(element.Get(), clock.Get());
      gst_element_set_base_time(element.Get(), baseTime);
      gst_element_sync_state_with_parent(element.Get());
    });
  }
  ++m_count;
}

bool BranchRestart::Owns(GstObject* object) const {
  return std::any_of(m_elements.begin(), m_elements.end(), [object](const auto& element) {
    return object == GST_OBJECT(element.Get()) || gst_object_has_as_ancestor(object, GST_OBJECT(element.Get())) == TRUE;
  });
}

std::string BranchRestart::GetProblem() const {
  const std::lock_guard lock(m_problemMutex);
  return m_problem;
}

void BranchRestart::SetProblem(const std::string& problem) {
  const std::lock_guard lock(m_problemMutex);
  m_problem = problem;
}

}  // namespace Tavi::GstUtil
