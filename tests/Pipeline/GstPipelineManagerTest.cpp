// The main loop and the bus: what ends the loop, what restarts the unit, and that nothing outlives Stop.
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>

#include "Ksystem/System/Reboot.h"
#include "Support/Media.h"
#include "Tavi/Pipeline/GstPipelineManager.h"

namespace {

using Tavi::Pipeline::GstPipelineManager;
using Tavi::Pipeline::PipelineConfig;
using Tavi::Testing::CapturedOutput;
using Tavi::Testing::WaitUntil;

constexpr auto Shared = GstPipelineManager::GstPipelineType::Camera01Audio;

class OpenManager : public GstPipelineManager {
 public:
  using GstPipelineManager::GstPipelineManager;
  ~OpenManager() override { Stop(); }
  void Arm() { m_rebootOnError = true; }
};

int CountLoopThreads() {
  return Tavi::Testing::CountThreads("PIPELINE");
}

class GstPipelineManagerTest : public Tavi::Testing::MediaTest {
 protected:
  static GstMessage* ElementMessage(GstElement* source, const char* name) {
    return gst_message_new_element(GST_OBJECT(source), gst_structure_new_empty(name));
  }
  static GstMessage* ErrorMessage(GstElement* source) {
    GError* error = g_error_new_literal(GST_CORE_ERROR, GST_CORE_ERROR_FAILED, "the lens fell off");
    GstMessage* message = gst_message_new_error(GST_OBJECT(source), error, "debug");
    g_error_free(error);
    return message;
  }
  /// What the bus handler prints while `post`'s message is handled by a running manager, until its loop has ended.
  std::string PrintedUntilLoopEnds(OpenManager& manager, const std::function<GstMessage*(GstElement*)>& post) {
    CapturedOutput output;
    manager.Start();
    EXPECT_TRUE(WaitUntil([] { return CountLoopThreads() == 1; }));
    gst_element_post_message(manager.GetGstPipeline(Shared), post(manager.GetGstPipeline(Shared)));
    EXPECT_TRUE(WaitUntil([] { return CountLoopThreads() == 0; }));
    return output.GetText();
  }
};

TEST_F(GstPipelineManagerTest, StartsAndStopsAnyNumberOfTimesAndLeavesNoThread) {
  OpenManager manager{PipelineConfig()};
  manager.Start();
  EXPECT_EQ(manager.GetGstPipeline(Shared), nullptr) << "nothing starts before Init";
  for (int i = 0; i < 50; ++i) {
    manager.Init();
    GstElement* pipeline = manager.GetGstPipeline(Shared);
    ASSERT_STREQ(GST_ELEMENT_NAME(pipeline), "Camera01Audio");
    manager.Init();
    EXPECT_EQ(manager.GetGstPipeline(Shared), pipeline) << "a second Init does nothing";
    manager.Start();
    manager.Start();
    if (i % 2 == 0) {
      EXPECT_TRUE(WaitUntil([] { return CountLoopThreads() == 1; }));
    }
    manager.Stop();  // also before the loop has begun to run
    EXPECT_TRUE(WaitUntil([] { return CountLoopThreads() == 0; }));
    EXPECT_EQ(manager.GetGstPipeline(Shared), nullptr);
  }
  PipelineConfig nothing;
  nothing.camera0Enabled = nothing.camera1Enabled = nothing.audioEnabled = false;
  OpenManager loopOnly(nothing);
  loopOnly.Init();
  EXPECT_EQ(loopOnly.GetGstPipeline(Shared), nullptr);
  loopOnly.Start();
  EXPECT_TRUE(WaitUntil([] { return CountLoopThreads() == 1; }));
}

TEST_F(GstPipelineManagerTest, TurnOffEndsTheLoopAndLeavesThePipelinePlaying) {
  OpenManager manager{PipelineConfig()};
  manager.Init();
  gst_bin_add(GST_BIN(manager.GetGstPipeline(Shared)), gst_element_factory_make("fakesink", nullptr));
  GstMessage* other = ElementMessage(manager.GetGstPipeline(Shared), "something_else");
  gst_element_post_message(manager.GetGstPipeline(Shared), other);
  GError* choice = g_error_new_literal(GST_CORE_ERROR, GST_CORE_ERROR_FAILED, "captured as it comes");
  gst_element_post_message(manager.GetGstPipeline(Shared),
                           gst_message_new_info(GST_OBJECT(manager.GetGstPipeline(Shared)), choice, nullptr));
  g_error_free(choice);
  const std::string printed =
      PrintedUntilLoopEnds(manager, [](GstElement* pipeline) { return ElementMessage(pipeline, "turn_off"); });
  std::istringstream lines(printed);
  int messages = 0;
  for (std::string line; std::getline(lines, line);) messages += line.rfind("MSG: 0x", 0) == 0 ? 1 : 0;
  EXPECT_EQ(messages, 2) << printed;
  EXPECT_EQ(CountLogged("captured as it comes"), 1);
  EXPECT_EQ(GST_STATE_TARGET(manager.GetGstPipeline(Shared)), GST_STATE_PLAYING);
}

TEST_F(GstPipelineManagerTest, ErrorsAndTheEndOfTheStreamEndTheLoopAndOnlyAnArmedErrorRestartsTheUnit) {
  for (const bool armed : {false, true}) {
    std::atomic<int> reboots{0};
    Ksystem::System::SetRebootHandler([&] { ++reboots; });
    OpenManager manager{PipelineConfig()};
    manager.Init();
    if (armed) manager.Arm();
    EXPECT_EQ(PrintedUntilLoopEnds(manager, ErrorMessage), "ERROR:the lens fell off\n");
    EXPECT_EQ(reboots, armed ? 1 : 0);
    EXPECT_EQ(CountLogged("Fatal gstreamer error"), armed ? 1 : 0);
    EXPECT_EQ(CountLogged("Rebooting..."), armed ? 1 : 0);
    manager.Stop();
    manager.Init();
    EXPECT_EQ(PrintedUntilLoopEnds(manager, [](GstElement* p) { return gst_message_new_eos(GST_OBJECT(p)); }),
              "GST_MESSAGE_EOS REACHED !!!\n");
    Ksystem::System::SetRebootHandler({});
  }
}

}  // namespace
