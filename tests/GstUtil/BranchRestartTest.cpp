// A branch's source, opened ahead of its pipeline's start.
#include "Tavi/GstUtil/BranchRestart.h"

#include <gtest/gtest.h>

#include "Support/Media.h"

namespace Tavi::GstUtil {
namespace {

int s_openings = 0;
bool s_isThere = true;

/// A device that tells how it was opened, or why it cannot be.
GstStateChangeReturn OpenDevice(GstElement* element, GstStateChange transition) {
  if (transition != GST_STATE_CHANGE_NULL_TO_READY) return GST_STATE_CHANGE_SUCCESS;
  ++s_openings;
  if (s_isThere) {
    GST_ELEMENT_INFO(element, RESOURCE, SETTINGS, ("opened as it comes"), (nullptr));
    return GST_STATE_CHANGE_SUCCESS;
  }
  GST_ELEMENT_ERROR(element, RESOURCE, OPEN_READ, ("the lens is missing"), (nullptr));
  GST_ELEMENT_ERROR(element, RESOURCE, OPEN_READ, ("what came of it"), (nullptr));
  return GST_STATE_CHANGE_FAILURE;
}

GstElement* NewDevice() {
  static const GType type = g_type_register_static_simple(
      GST_TYPE_ELEMENT, "TestDevice", sizeof(GstElementClass),
      [](gpointer klass, gpointer) { static_cast<GstElementClass*>(klass)->change_state = OpenDevice; },
      sizeof(GstElement), nullptr, GTypeFlags(0));
  return GST_ELEMENT(g_object_new(type, nullptr));
}

class BranchRestartTest : public Testing::MediaTest {
 protected:
  void SetUp() override {
    MediaTest::SetUp();
    s_openings = 0;
    s_isThere = true;
    m_pipeline = GstRef<GstElement>::Sink(gst_pipeline_new(nullptr));
    m_device = NewDevice();
    gst_bin_add(GST_BIN(m_pipeline.Get()), m_device);
    m_branch.Keep({m_device});
    m_branch.TakeDown();
  }
  void TearDown() override {
    gst_element_set_state(m_pipeline.Get(), GST_STATE_NULL);
    MediaTest::TearDown();
  }
  [[nodiscard]] GstState GetState() const { return GST_STATE(m_device); }

  GstRef<GstElement> m_pipeline;
  GstElement* m_device = nullptr;
  BranchRestart m_branch;
};

// Catches a device that is opened twice for one start, which costs seconds with drivers that list hundreds of modes,
// and a choice of its that nobody reads, for the pipeline's bus takes nothing before the start.
TEST_F(BranchRestartTest, ASourceThatOpensStaysOpenForTheStartAndItsChoiceIsLogged) {
  ASSERT_TRUE(m_branch.TryOpen());
  EXPECT_EQ(CountLogged("opened as it comes"), 1);
  m_branch.Release();
  EXPECT_EQ(gst_element_set_state(m_pipeline.Get(), GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
  EXPECT_EQ(GetState(), GST_STATE_PLAYING);
  EXPECT_EQ(s_openings, 1);
  m_branch.TakeDown();
  ASSERT_TRUE(m_branch.TryOpen());
  m_branch.BringUp(m_pipeline.Get());
  EXPECT_EQ(GetState(), GST_STATE_PLAYING);
  EXPECT_EQ(s_openings, 2);
}

// Catches a device that failed and holds its node, one that takes the pipeline along, and a reason that is the second
// of two.
TEST_F(BranchRestartTest, ASourceThatDoesNotOpenIsClosedAndThePipelineHearsNothing) {
  s_isThere = false;
  EXPECT_FALSE(m_branch.TryOpen());
  EXPECT_EQ(m_branch.GetProblem(), "the lens is missing");
  EXPECT_EQ(GetState(), GST_STATE_NULL);
  EXPECT_EQ(gst_element_set_state(m_pipeline.Get(), GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
  const auto bus = GstRef<GstBus>::Adopt(gst_element_get_bus(m_pipeline.Get()));
  EXPECT_EQ(gst_bus_pop_filtered(bus.Get(), GST_MESSAGE_ERROR), nullptr);
  EXPECT_EQ(s_openings, 1);
}

}  // namespace
}  // namespace Tavi::GstUtil
