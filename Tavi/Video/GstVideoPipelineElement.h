// The GStreamer branch of one camera: capture, crop, H.264 encoding, live stream, preview.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "Tavi/GstUtil/BranchEnds.h"
#include "Tavi/GstUtil/BranchRestart.h"
#include "Tavi/GstUtil/GstRef.h"
#include "Tavi/Video/StreamSetup.h"
#include "Tavi/Video/VideoConfig.h"

namespace Tavi::Video {

class GstIpuFrame;

/// Builds the branch in a pipeline and receives its output.
///
/// SetEncodedFrame and SetPreviewFrame are called on GStreamer's streaming threads, one at a time each. The pipeline's
/// state is its owner's business, who takes it to NULL before deleting the element; a subclass calls Detach in its
/// destructor, after which nothing of GStreamer calls it any more. Frames leave the source only between start and stop.
class GstVideoPipelineElement {
 public:
  /// Builds the branch in a pipeline of its own ("camera1-pipeline" for value 0, "camera0-pipeline" for 1), owned here
  /// and taken to NULL at destruction. With any other camera type nothing is built.
  explicit GstVideoPipelineElement(const VideoConfig& config);
  /// Builds the branch in `pipeline`, which stays the caller's.
  GstVideoPipelineElement(GstElement* pipeline, const VideoConfig& config);
  virtual ~GstVideoPipelineElement();

  /// Receives one encoded access unit with one reference; null is ignored.
  virtual void SetEncodedFrame(GstBuffer* buffer) = 0;
  /// Receives one scaled I420 frame with one reference.
  virtual void SetPreviewFrame(GstBuffer* buffer) = 0;

  /// The newest raw frame, as the camera delivers it (I420 on the unit), with a reference for the caller. Blocks until
  /// a frame is there; null once the pipeline does not run, or its stream has ended. Thread-safe.
  GstBuffer* GetRawFrame();
  /// The same, and null also once `giveUp` says so: it is asked on the caller's thread every 50 ms while no frame is
  /// there, and before the first look.
  GstBuffer* GetRawFrame(const std::function<bool()>& giveUp);
  /// The same as a frame of the media library, I420 whatever the camera delivers, owned by the caller; null when there
  /// is none, or none that can be converted.
  GstIpuFrame* GetIpuFrame();
  GstIpuFrame* GetIpuFrame(const std::function<bool()>& giveUp);

  /// The pipeline of its own, borrowed, for whoever sets it playing; null when the branch is in somebody else's.
  [[nodiscard]] GstElement* GetOwnPipeline() const { return m_ends.GetOwnPipeline(); }
  /// The branch, to be started anew by whoever drives the pipeline; its ring, ids and time stamps go on.
  [[nodiscard]] GstUtil::BranchRestart& GetBranch() { return m_branch; }
  [[nodiscard]] const GstUtil::BranchRestart& GetBranch() const { return m_branch; }

  static GstPadProbeReturn RunningCallback(GstPad* pad, GstPadProbeInfo* info, void* element) noexcept;
  static GstFlowReturn SetEncodedFrameCallback(GstAppSink* sink, void* element) noexcept;
  /// Lets those frames to the preview's queue that are a preview's: none is scaled, nor wakes a thread, for nothing.
  static GstPadProbeReturn ThinPreviewCallback(GstPad* pad, GstPadProbeInfo* info, void* element) noexcept;
  static GstFlowReturn SetPreviewFrameCallback(GstAppSink* sink, void* element) noexcept;

  GstVideoPipelineElement(const GstVideoPipelineElement&) = delete;
  GstVideoPipelineElement& operator=(const GstVideoPipelineElement&) = delete;

 protected:
  void SetRunning(bool running) { m_ends.SetRunning(running); }
  /// Takes probe and callbacks off the branch and waits for those under way, raw-frame pulls included.
  void Detach();

  [[nodiscard]] const VideoConfig& GetConfig() const { return m_config; }
  /// What a decoder has to know before this access unit. On the thread of SetEncodedFrame only.
  std::shared_ptr<const StreamSetup> FollowSetup(GstBuffer* accessUnit) { return m_setup.Follow(accessUnit); }

 private:
  void Init(GstElement* pipeline, const VideoConfig& config);
  GstUtil::GstRef<GstSample> PullRawSample(const std::function<bool()>& giveUp);
  bool BeginPull();
  void EndPull();

  GstUtil::BranchEnds m_ends{"a frame of a camera is lost"};
  GstUtil::GstRef<GstElement> m_rawSink;
  VideoConfig m_config;
  /// Belongs to the encoded frames' streaming thread.
  SetupTracker m_setup;
  /// Of so many frames one is a preview's; 0: none is.
  std::int32_t m_previewEvery = 0;
  /// Those since the last one. Belongs to the source's streaming thread.
  std::int32_t m_previewPhase = 0;
  /// Guards the turn; not held while the one whose turn it is waits for a frame.
  std::mutex m_rawFrameMutex;
  std::condition_variable m_pullEnded;
  bool m_pulling = false;
  GstUtil::BranchRestart m_branch;
};

}  // namespace Tavi::Video
