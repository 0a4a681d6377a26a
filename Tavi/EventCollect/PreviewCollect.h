// The collector of the preview clip: both cameras' small frames side by side as an MP4, and one still of them.
#pragma once

#include <gst/gst.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Kbase/Util/EntryGuard.h"
#include "Tavi/GstUtil/GstRef.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/PipelineCollect/RingReader.h"

namespace Tavi::Audio {
class AudioPipelineCollect;
}
namespace Tavi::Video {
class PreviewPipelineElement;
}

namespace Tavi::PipelineCollect {

/// Feeds what the preview rings hold around the present, half of it before and half after, into an encoding pipeline of
/// its own, at the rate of the cameras; then adds the sound of the same seconds. The thread is "COLLECT-PREVIEW".
///
/// Whatever ends it early (RequestStop, Abort, a source that falls silent or is taken away) leaves a shorter clip that
/// plays; power that fails ends it without one, since nothing of it would be saved. Without a frame, or after a failed
/// mux, nothing counts as collected and no file stays. A camera without data, or silent since before the event, is left
/// out: the clip is then half as wide; one that falls silent meanwhile turns black.
class PreviewCollect final : public CollectBase {
 public:
  using Ring = Kbase::Pipeline::IPipelineElement;

  /// `first` is camera 0's preview, shown on the right, `second` camera 1's, on the left. All three are borrowed (see
  /// Bind) and may be null. With `previewFlag` false no preview is ever made. `previewParam` is the clip's bit rate in
  /// kbit/s; 256 unless positive.
  PreviewCollect(Video::PreviewPipelineElement* first, Video::PreviewPipelineElement* second,
                 Audio::AudioPipelineCollect* audio, bool previewFlag, std::int32_t previewParam = 0);
  ~PreviewCollect() override;

  /// Reads these rings from now on without owning them: once their owner has let one go it is not touched any more. Not
  /// while the thread runs.
  void Bind(const std::shared_ptr<Ring>& first, const std::shared_ptr<Ring>& second);

  /// The frames of the moment, by camera as in Bind, and the sound around it, held since then; without them the clip is
  /// made of what the rings hold when the collect runs. Between Init and the thread's start.
  void SetHeld(HeldWindow& held);

  void Init(PipelineCollectConfig& config) override;
  void Reset() override;
  void CopyTo(CollectBase* target) override;
  /// Removes clip and still.
  void DeletePath() override;
  void Collect() override;
  void Report(PipelineCollectOutput& output) const override;

  /// Builds, runs and takes down the encoding pipeline for the frames that Collect has found.
  void RunPipeline();
  /// An appsrc's "need-data": pushes the next frame of every camera when its time has come. Runs on the streaming
  /// threads; the first to come serves both.
  static void NeedDataPreview(GstElement* appsrc, guint length, void* self) noexcept;
  /// Lets the first buffer of the stills' branch pass and drops all others.
  static GstPadProbeReturn RunningCallback(GstPad* pad, GstPadProbeInfo* info, void* self) noexcept;

  /// Replaces the stream by an MP4 with that sound, or without when it is of no use. Nothing unless a stream was
  /// collected; on failure nothing is left and the collect counts as not collected.
  void Mux(const std::string& audioPath);
  /// The same without sound.
  void BuildMp4();

  /// Removes the still's file, if there is one.
  void DeleteThumbnailPath();
  /// Full path of the JPEG still of the last collect; empty when it has none.
  [[nodiscard]] const std::string& GetThumbnailPath() const { return m_thumbnailPath; }
  /// How many seconds a clip of these cameras has when nothing cuts it short.
  [[nodiscard]] int GetLength() const { return m_length; }

 protected:
  void Stopping() override;

 private:
  static constexpr std::size_t Cameras = 2;

  [[nodiscard]] std::shared_ptr<Ring> GetRing(std::size_t camera) const;
  [[nodiscard]] std::chrono::milliseconds GetInterval() const;
  [[nodiscard]] std::chrono::milliseconds GetSilenceLimit() const;
  bool FindStart();
  bool FindRings();
  bool TakeHeld();
  void FindSoundStart();
  void FindHeldSound();
  bool CollectSound(const std::string& path);
  bool CollectHeldSound(const std::string& path);
  int WaitForSound(int seconds);
  [[nodiscard]] int GetClipSeconds() const;
  void Replace(bool muxed, const std::string& mp4Path);
  void Discard(const char* reason);

  [[nodiscard]] std::string Describe() const;
  bool Build();
  void ConfigureSource(std::size_t camera);
  void RunLoop(GMainContext* context);
  void TearDown();
  static gboolean OnBusMessage(GstBus* bus, GstMessage* message, gpointer self) noexcept;
  static gboolean OnTick(gpointer self) noexcept;
  void Feed();
  bool PushNext();
  RingReader::Entry WaitForEntry(std::size_t camera);
  void Push(std::size_t camera, const Kbase::Pipeline::IPipelineCbElement* entry);

  /// By camera, as m_elements; -1 when the camera takes no part.
  std::array<std::int32_t, Cameras> m_startPos{-1, -1};
  std::atomic<unsigned int> m_framesPushed{0};
  int m_fps = 0;
  int m_frameCount = 0;
  const unsigned int m_bitrate;
  std::array<Ring*, Cameras> m_elements;
  Audio::AudioPipelineCollect* const m_audio;
  std::string m_thumbnailPath;
  GstUtil::GstRef<GstElement> m_pipeline;
  GMainLoop* m_loop = nullptr;
  GstUtil::GstRef<GstPad> m_pad;
  gulong m_probeId = 0;
  std::atomic<unsigned int> m_probeBuffers{0};

  const bool m_enabled;
  int m_length = 0;
  /// Set by Bind: the elements are then only touched while these can be locked.
  std::array<std::weak_ptr<Ring>, Cameras> m_life;
  bool m_bound = false;
  /// The cameras that take part and have not ended. The collect's thread fills it, then whoever is feeding uses it.
  std::array<std::optional<RingReader>, Cameras> m_readers;
  std::array<GstUtil::GstRef<GstElement>, Cameras> m_appSrcs;
  /// The sound's first entry, and how much later than the first frame it was made.
  std::optional<std::uint64_t> m_soundId;
  unsigned int m_soundPos = 0;
  /// See SetHeld; the sound begins with the clip once its start is found.
  std::array<std::optional<RingReader>, Cameras> m_heldFrames;
  std::optional<RingReader> m_heldSound;
  std::int64_t m_soundDelayNs = 0;
  std::chrono::steady_clock::time_point m_deadline;
  Kbase::Util::EntryGuard m_guard{Log::Tag, "the preview ends early"};

  /// Guards m_loop and m_feeding, and orders what one thread fed before what the next one does. Never held while a
  /// buffer is pushed.
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_feeding = false;
  std::atomic<bool> m_ending{false};
};

}  // namespace Tavi::PipelineCollect
