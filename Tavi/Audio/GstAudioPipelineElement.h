// The GStreamer branch of the microphone: capture and MP3 encoding.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <memory>

#include "Tavi/Audio/AudioConfig.h"
#include "Tavi/GstUtil/BranchEnds.h"
#include "Tavi/GstUtil/BranchRestart.h"

namespace Tavi::Audio {

class CardClock;

/// Builds the branch in a pipeline and receives its MP3 frames.
///
/// SetFrame is called on GStreamer's streaming thread. The pipeline's state is its owner's business, who takes it to
/// NULL before deleting the element; a subclass calls Detach in its destructor, after which nothing of GStreamer calls
/// it any more. Sound leaves the source only between start and stop.
///
/// A sound card that is missing when the branch is built is one line in the log and nothing on the pipeline's bus; the
/// branch is then left out of the pipeline's state changes, so that the cameras of the same pipeline run without it.
class GstAudioPipelineElement {
 public:
  /// Builds the branch in a pipeline of its own, "audio-pipeline", owned here and taken to NULL at destruction.
  explicit GstAudioPipelineElement(const AudioConfig& config);
  /// Builds the branch in `pipeline`, which stays the caller's. Null: nothing is built.
  GstAudioPipelineElement(GstElement* pipeline, const AudioConfig& config);
  virtual ~GstAudioPipelineElement();

  /// Receives one MP3 frame with one reference; null is ignored.
  virtual void SetFrame(GstBuffer* buffer) = 0;

  /// The branch, to be started anew by whoever drives the pipeline; its ring, ids and time stamps go on.
  [[nodiscard]] GstUtil::BranchRestart& GetBranch() { return m_branch; }
  [[nodiscard]] const GstUtil::BranchRestart& GetBranch() const { return m_branch; }

  static GstPadProbeReturn RunningCallback(GstPad* pad, GstPadProbeInfo* info, void* element) noexcept;
  static GstFlowReturn SetEncodedFrameCallback(GstAppSink* sink, void* element) noexcept;

  GstAudioPipelineElement(const GstAudioPipelineElement&) = delete;
  GstAudioPipelineElement& operator=(const GstAudioPipelineElement&) = delete;

 protected:
  void SetRunning(bool running) { m_ends.SetRunning(running); }
  /// Takes probe and callback off the branch and waits for those under way.
  void Detach() { m_ends.Detach(); }

  [[nodiscard]] const AudioConfig& GetConfig() const { return m_config; }

 private:
  void Init(GstElement* pipeline, const AudioConfig& config);
  /// The frame is of a time of which there is sound already: time stamps were corrected back, and entries are in order.
  bool IsBehindTheLast(GstClockTime timestamp);

  GstUtil::BranchEnds m_ends{"a frame of sound is lost"};
  AudioConfig m_config;
  GstUtil::BranchRestart m_branch;
  /// What the branch's source gives the pipeline; empty without one.
  std::shared_ptr<CardClock> m_clock;
  /// Belongs to the sink's streaming thread.
  GstClockTime m_lastTimestamp = GST_CLOCK_TIME_NONE;
};

}  // namespace Tavi::Audio
