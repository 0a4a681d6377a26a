// The preview collector on rings that are filled in real time: what its clip and its still show, and how it ends.
#include <gst/video/video.h>

#include <atomic>
#include <thread>

#include "SoftImx/GstRun.h"
#include "Support/Media.h"
#include "Support/SoundDecode.h"
#include "Support/VideoDecode.h"
#include "Tavi/Audio/AudioPipelineCbElement.h"
#include "Tavi/Audio/AudioPipelineCollect.h"
#include "Tavi/EventCollect/PreviewCollect.h"
#include "Tavi/Video/PreviewPipelineElement.h"

namespace {

using namespace std::chrono_literals;
using namespace Tavi::PipelineCollect;
using Tavi::Audio::AudioPipelineCollect;
using Tavi::Testing::DecodeVideo;
using Tavi::Testing::WaitUntil;
using Tavi::Video::PreviewPipelineElement;

constexpr float SoundFps = 44100.0F / 1152.0F;

std::shared_ptr<PreviewPipelineElement> MakeRing(int fps, int seconds) {
  Tavi::Video::VideoConfig config;
  config.previewFps = fps;
  return std::make_shared<PreviewPipelineElement>(config, fps * seconds);
}

GstClockTime TimeOf(std::uint64_t id, float fps) {
  return GST_SECOND + static_cast<GstClockTime>(static_cast<double>(id) / fps * GST_SECOND);
}

/// Each frame is a little brighter than the one before it.
int LumaOf(std::uint64_t id, int base) {
  return base + 3 * static_cast<int>(id % 32);
}

void AddFrame(PreviewPipelineElement& ring, int base) {
  const std::uint64_t id = ring.GetCurrentFrameId() + 1;
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, 320 * 176 * 3 / 2, nullptr);
  gst_buffer_memset(buffer, 0, static_cast<guint8>(LumaOf(id, base)), 320 * 176);
  gst_buffer_memset(buffer, 320 * 176, static_cast<guint8>(base), 320 * 176 / 2);
  GST_BUFFER_PTS(buffer) = TimeOf(id, ring.GetFps());
  ring.SetFrame(buffer);
}

/// A silent MP3 frame of 44,100 Hz and 128 kbit/s.
void AddSound(Tavi::Testing::TestRing& ring, double laterSeconds) {
  const std::uint64_t id = ring.GetCurrentFrameId() + 1;
  const GstClockTime time = TimeOf(id, SoundFps) + static_cast<GstClockTime>(laterSeconds * GST_SECOND);
  GstBuffer* buffer = Tavi::Testing::MakeBuffer("\xff\xfb\x90\xc4" + std::string(413, '\0'), time);
  ring.AddNext(std::make_shared<Tavi::Audio::AudioPipelineCbElement>(id, buffer));
}

/// Calls `add` so many times at once, then at its rate until it goes out of scope.
class Feeder {
 public:
  Feeder(int first, float fps, const std::function<void()>& add) {
    for (int i = 0; i < first; ++i) add();
    m_thread = std::thread([this, fps, add] {
      auto next = std::chrono::steady_clock::now();
      while (!m_ended) {
        next += std::chrono::microseconds(static_cast<int>(1e6F / fps));
        std::this_thread::sleep_until(next);
        add();
      }
    });
  }
  ~Feeder() {
    m_ended = true;
    m_thread.join();
  }

 private:
  std::atomic<bool> m_ended{false};
  std::thread m_thread;
};

class PreviewTest : public Tavi::Testing::MediaTest {
 protected:
  /// Starts the collect and waits for its end; how long that took.
  std::chrono::milliseconds Run(PreviewCollect& collect, const std::string& dir = "event 1") {
    std::filesystem::create_directory(m_dir + "event 1");
    PipelineCollectConfig config{-3, 6, m_dir + dir + "/"};
    collect.Init(config);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(collect.IThread::Start());
    EXPECT_TRUE(WaitUntil([&] { return !collect.IsRunning(); }));
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  }
  long CountFiles() const {
    return std::distance(std::filesystem::directory_iterator(m_dir + "event 1"), std::filesystem::directory_iterator());
  }
};

// Catches frames lost, doubled or out of order, halves that are swapped, entries that lose their time, sound that is
// missing or misplaced, a still of more than one picture, and files left behind.
TEST_F(PreviewTest, ShowsBothCamerasAroundThePresentWithTheirSound) {
  auto right = MakeRing(3, 6);
  auto left = MakeRing(3, 6);
  Tavi::Testing::TestRing sound(1225, SoundFps);
  AudioPipelineCollect audio(&sound, false);
  PreviewCollect collect(nullptr, nullptr, &audio, true);
  collect.Bind(right, left);
  {
    const Feeder pictures(30, 3.0F, [&] {
      AddFrame(*right, 130);
      AddFrame(*left, 30);
    });
    // The microphone began half a second after the clip's first frame, the one with the id 20.
    const Feeder noises(95, SoundFps, [&] { AddSound(sound, 20.0 / 3 + 0.5); });
    EXPECT_GE(Run(collect), 5900ms) << "frames that had not been made yet";
  }
  ASSERT_TRUE(collect.IsCollected()) << GetLog();
  EXPECT_EQ(CountFiles(), 2) << "more than the clip and its still";
  const auto video = DecodeVideo(collect.GetPath());
  EXPECT_EQ(video.width, 640);
  EXPECT_EQ(video.height, 176);
  EXPECT_NEAR(video.durationSeconds, 6.0, 0.01);
  EXPECT_EQ(collect.GetLength(), 6);
  ASSERT_EQ(video.frames.size(), 18U);
  for (std::size_t i = 0; i < video.frames.size(); ++i) {
    EXPECT_NEAR(video.frames[i].meanLuma, (LumaOf(20 + i, 30) + LumaOf(20 + i, 130)) / 2.0, 2.0) << i;
  }
  EXPECT_NEAR(Tavi::Testing::DecodeSound(collect.GetPath()).startSeconds, 0.5, 0.05);
  EXPECT_NEAR(video.audioSeconds, 6.0, 0.6) << GetLog();
  for (unsigned int pos = 0; pos < 18; ++pos) {
    const auto entry = std::dynamic_pointer_cast<Tavi::GstUtil::GstPipelineCbElement>(left->GetElementAt(pos));
    EXPECT_EQ(GST_BUFFER_PTS(entry->buffer), TimeOf(entry->frameId, 3.0F));
  }
  bool shown = false;
  SoftImx::Test::GstRun still("filesrc name=in ! jpegparse ! jpegdec name=dec ! fakesink name=out");
  g_object_set(still.Get("in"), "location", collect.GetThumbnailPath().c_str(), nullptr);
  still.OnBuffer("dec", [&](GstPad* pad, GstBuffer* buffer) {
    shown = true;
    const auto picture = SoftImx::Test::MapPicture(pad, buffer);
    EXPECT_NEAR(SoftImx::Test::At(picture, 0, 10, 90), LumaOf(20, 30), 8);
    EXPECT_NEAR(SoftImx::Test::At(picture, 0, 630, 90), LumaOf(20, 130), 8);
  });
  ASSERT_TRUE(still.PlayUntil([&] { return shown; }));
  const std::string bytes = Tavi::Testing::ReadFile(collect.GetThumbnailPath());
  EXPECT_EQ(bytes.rfind("\xff\xd8\xff"), 0U) << "more than one picture";
  EXPECT_EQ(bytes.substr(bytes.size() - 2), "\xff\xd9");
}

// Catches slots of a young ring that are read before they are written, a clip that is held back or cut short by a
// camera that is missing or fails, and a stop that waits for the next frame.
TEST_F(PreviewTest, ACameraMayBeMissingOrFailAndACollectMayBeStopped) {
  enum class End { Whole, RightFails, Stop, Abort };
  const struct {
    const char* what;
    bool withLeft;
    int first;
    End end;
    int width;
    std::size_t startId;
  } cases[] = {
      {"left camera only, young ring", true, 3, End::Whole, 320, 0},
      {"right camera only, full ring", false, 50, End::Whole, 320, 39},
      {"the right camera fails", true, 50, End::RightFails, 640, 39},
      {"stopped", false, 50, End::Stop, 320, 39},
      {"aborted", false, 50, End::Abort, 320, 39},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const bool withRight = !c.withLeft || c.end == End::RightFails;
    auto right = withRight ? MakeRing(20, 1) : nullptr;
    auto left = c.withLeft ? MakeRing(20, 1) : nullptr;
    PreviewCollect collect(right.get(), left.get(), nullptr, true);
    std::chrono::steady_clock::time_point stoppedAt;
    std::thread stopper;
    {
      int added = 0;
      const Feeder pictures(c.first, 20.0F, [&] {
        if (right && (c.end != End::RightFails || added++ < c.first)) AddFrame(*right, 130);
        if (left) AddFrame(*left, 30);
      });
      if (c.end == End::Stop || c.end == End::Abort) {
        stopper = std::thread([&] {
          WaitUntil([&] { return collect.IsRunning(); });
          std::this_thread::sleep_for(600ms);
          stoppedAt = std::chrono::steady_clock::now();
          c.end == End::Stop ? collect.RequestStop() : static_cast<void>(collect.Abort());
        });
      }
      Run(collect);
    }
    const auto endedAt = std::chrono::steady_clock::now();
    if (stopper.joinable()) stopper.join();
    ASSERT_TRUE(collect.IsCollected()) << GetLog();
    const auto video = DecodeVideo(collect.GetPath());
    EXPECT_EQ(video.width, c.width);
    if (c.end == End::Stop || c.end == End::Abort) {
      EXPECT_LT(endedAt - stoppedAt, 5s);
      EXPECT_GE(video.frames.size(), 5U);
      EXPECT_LT(video.frames.size(), 20U);
    } else {
      EXPECT_EQ(video.frames.size(), 20U);
    }
    for (std::size_t i = 0; i < video.frames.size(); ++i) {
      double luma = LumaOf(c.startId + i, c.withLeft ? 30 : 130);
      if (c.end == End::RightFails) luma = (luma + (i <= 10 ? LumaOf(c.startId + i, 130) : 16)) / 2;
      EXPECT_NEAR(video.frames[i].meanLuma, luma, 2.5) << i;
    }
    collect.DeletePath();
    collect.DeleteThumbnailPath();
  }
}

// Catches a pipeline error that holds the event up or goes unnoticed, and previews that nobody asked for.
TEST_F(PreviewTest, NothingIsReportedWithoutADirectoryDataOrTheFlag) {
  auto ring = MakeRing(20, 1);
  PreviewCollect collect(ring.get(), nullptr, nullptr, true);
  PreviewCollect notWanted(ring.get(), nullptr, nullptr, false);
  Run(collect);
  EXPECT_FALSE(collect.IsCollected()) << "there is no data";
  for (int i = 0; i < 20; ++i) AddFrame(*ring, 30);
  Run(notWanted);
  EXPECT_LT(Run(collect, "missing"), 5s) << "the window is six seconds";
  EXPECT_FALSE(collect.IsCollected() || notWanted.IsCollected());
  EXPECT_EQ(collect.GetThumbnailPath(), "");
  EXPECT_GE(CountLogged("missing/preview_"), 1) << GetLog();
  EXPECT_EQ(CountFiles(), 0);
}

}  // namespace
