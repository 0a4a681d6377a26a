// The GStreamer side of the acquisition: the shared pipeline, its main loop and its bus.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "Kbase/Util/EntryGuard.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/GstUtil/StreamThreads.h"
#include "Tavi/Pipeline/PipelineConfig.h"

namespace Tavi::Pipeline {

class MainLoopThread;

/// Owns the media pipeline and the main loop on the thread "PIPELINE".
///
/// Init, Start and Stop are called by one thread at a time, which the subclass sees to; BusCall runs on "PIPELINE".
/// Stop takes the pipelines to NULL, removes the bus watch and waits for "PIPELINE" to end, so nothing of a stopped
/// manager is called any more. A subclass stops in its own destructor.
class GstPipelineManager {
 public:
  enum class GstPipelineType : std::int32_t {
    /// Shared by both cameras and the microphone.
    Camera01Audio = 0,
  };

  /// Copies the configuration; GStreamer is not touched.
  explicit GstPipelineManager(const PipelineConfig& config);
  virtual ~GstPipelineManager();

  /// Initialises GStreamer, creates the main loop and, when a camera or audio is enabled, the shared pipeline. Does
  /// nothing when already initialised.
  virtual void Init();
  /// Sets the pipelines to PLAYING (not waited for) and starts the main loop. Does nothing before Init or a second
  /// time.
  virtual void Start();
  /// Back to the state after construction.
  virtual void Stop();

  [[nodiscard]] const PipelineConfig& GetConfig() const { return m_config; }
  /// The pipeline of that kind, borrowed until Stop; null when none was created.
  GstElement* GetGstPipeline(GstPipelineType type) const;
  /// A new pipeline whose bus calls BusCall on this manager; the caller has the reference.
  GstElement* CreateGstPipeline(const std::string& name);
  /// The bus watch: an error, the end of the stream and the element message "turn_off" end the main loop, and an error
  /// restarts the unit when that is armed. Always true: the watch stays.
  static gboolean BusCall(GstBus* bus, GstMessage* message, gpointer manager) noexcept;

  GstPipelineManager(const GstPipelineManager&) = delete;
  GstPipelineManager& operator=(const GstPipelineManager&) = delete;

 protected:
  /// Called before the pipelines leave NULL.
  virtual void PrepareStart() {}
  /// Takes care of an element's error. False when it is one of the whole pipeline, which then has its consequences.
  [[nodiscard]] virtual bool TakeError(GstObject* /*source*/, const std::string& /*text*/) { return false; }
  void HandleError(GstMessage* message);
  void HandleElementMessage(GstMessage* message);
  void StopMainLoop();
  /// An error or the end of the stream has ended the main loop of a started manager.
  [[nodiscard]] bool HasLoopEnded() const;
  /// Takes the pipelines to NULL and starts them, and the main loop where that has ended, once more. Running time goes
  /// on at `runningTime` or where it has come to, and by the system's clock: a sound card's may be what has failed.
  void RestartPipelines(GstClockTime runningTime);
  /// Only pauses the pipelines for that; nothing happens to one that goes by it already.
  void ChangeToSystemClock(GstClockTime runningTime);

  GMainLoop* m_loop = nullptr;
  std::map<GstPipelineType, GstElement*> m_pipelines;
  const PipelineConfig m_config;
  // Read by threads that do not drive the lifecycle, hence atomics.
  std::atomic<bool> m_initialized{false};
  std::atomic<bool> m_started{false};
  /// A GStreamer error restarts the unit.
  std::atomic<bool> m_rebootOnError{false};

 private:
  void Handle(GstMessage* message);

  std::shared_ptr<MainLoopThread> m_loopThread;
  /// Of the pipelines since Init.
  std::unique_ptr<GstUtil::StreamThreads> m_threads = std::make_unique<GstUtil::StreamThreads>();
  Kbase::Util::EntryGuard m_guard{Log::Tag, "a message of the bus is lost"};
};

}  // namespace Tavi::Pipeline
