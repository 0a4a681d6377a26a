// A collect manager on cameras' rings that the test fills itself.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>

#include "Simulator/EncodedMaterial.h"
#include "Support/Media.h"
#include "Support/VideoDecode.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"
#include "Tavi/Pipeline/PipelineManager.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace Tavi::Testing {

using namespace Tavi::PipelineCollect;
using Tavi::Pipeline::PipelineConfig;
using Tavi::Pipeline::PipelineManager;
using Tavi::Pipeline::PipelineType;
using Tavi::Video::VideoPipelineElement;

constexpr int Fps0 = 15;
constexpr int Fps1 = 30;

/// A clock that the test sets forward, so that two minutes are over when it says so.
class JumpingClock final : public Kbase::Util::IClock {
 public:
  Milliseconds Now() override { return Steady().Now() + Milliseconds(m_ahead.load()); }
  void Sleep(Milliseconds duration) override { Steady().Sleep(duration); }
  void Jump(Milliseconds duration) { m_ahead += duration.count(); }

 private:
  std::atomic<std::int64_t> m_ahead{0};
};

inline PipelineConfig CamerasOnly() {
  PipelineConfig config;
  config.audioEnabled = config.gpsEnabled = config.accEnabled = config.otherEnabled = false;
  config.camera0.previewEnabled = config.camera1.previewEnabled = false;
  config.camera0.fps = Fps0;
  config.camera1.fps = Fps1;
  return config;
}

class CollectManagerTest : public Tavi::Testing::MediaTest {
 protected:
  void SetUp() override {
    MediaTest::SetUp();
    m_pipeline = std::make_unique<PipelineManager>(CamerasOnly());
    m_managerConfig.pipelineManager = m_pipeline.get();
    m_managerConfig.workDir = m_dir;
    m_managerConfig.backupDir = m_dir + "backup/";
    m_input.outputDir = m_dir + "event";
    m_input.startSeconds = -2;
    m_input.durationSeconds = 3;
  }
  void TearDown() override {
    StopFeeding();
    MediaTest::TearDown();
  }

  /// Appends the next frame to both cameras' rings as if `frame` thirtieths of a second had passed.
  void FeedFrame(PipelineManager& pipeline) {
    const GstClockTime now = gst_util_uint64_scale(m_frame, GST_SECOND, Fps1);
    Feed(pipeline, PipelineType::Camera1, m_stream1, m_frame, now);
    if (m_frame % 2 == 0) Feed(pipeline, PipelineType::Camera0, m_stream0, m_frame / 2, now + 5 * GST_MSECOND);
    ++m_frame;
  }
  /// Seconds of material at once, then in real time on a thread of its own.
  void StartFeeding(int secondsBefore) {
    for (int i = 0; i < secondsBefore * Fps1; ++i) FeedFrame(*m_pipeline);
    m_feeding = true;
    m_feeder = std::thread([this] {
      while (m_feeding) {
        FeedFrame(*m_pipeline);
        std::this_thread::sleep_for(std::chrono::microseconds(1'000'000 / Fps1));
      }
    });
  }
  void StopFeeding() {
    m_feeding = false;
    if (m_feeder.joinable()) m_feeder.join();
  }

  /// A collect on a thread of its own that has been writing for a while.
  std::future<bool> CollectInBackground(PipelineCollectManager& manager) {
    auto collect = std::async(std::launch::async, [&] { return manager.Collect(m_input, m_output); });
    EXPECT_TRUE(WaitUntil([&] { return manager.Running(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    return collect;
  }

  std::unique_ptr<PipelineManager> m_pipeline;
  PipelineCollectManagerConfig m_managerConfig;
  PipelineCollectInput m_input;
  PipelineCollectOutput m_output;

 private:
  using Stream = std::vector<std::vector<std::uint8_t>>;

  static void Feed(PipelineManager& pipeline, PipelineType camera, const Stream& stream, std::uint64_t frame,
                   GstClockTime pts) {
    const auto element = std::dynamic_pointer_cast<VideoPipelineElement>(pipeline.ShareElement(camera));
    if (!element) return;
    const auto& unit = stream[frame % stream.size()];
    const std::string bytes(unit.begin(), unit.end());
    element->SetEncodedFrame(Tavi::Testing::MakeBuffer(bytes, pts, frame % stream.size() == 0));
  }

  const Stream m_stream0 = Tavi::Simulator::EncodeH264(320, 176, Fps0, Fps0, Fps0);
  const Stream m_stream1 = Tavi::Simulator::EncodeH264(320, 176, Fps1, Fps1, Fps1);
  std::uint64_t m_frame = 0;
  std::atomic<bool> m_feeding{false};
  std::thread m_feeder;
};

}  // namespace Tavi::Testing
