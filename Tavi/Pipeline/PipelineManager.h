// The acquisition's entry object: all sources of one configuration, driven by ignition and signals.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>

#include "Kbase/Interfaces/ISignInt.h"
#include "Kbase/Interfaces/IgnitionOffMode.h"
#include "Kbase/Interfaces/IgnitionStartMode.h"
#include "Kbase/Pipeline/IPipelineElement.h"
#include "Kbase/Util/Clock.h"
#include "Tavi/Pipeline/GstPipelineManager.h"
#include "Tavi/Pipeline/PipelineType.h"
#include "Tavi/Pipeline/SourceBranches.h"
#include "Tavi/Pipeline/StallWatch.h"

namespace Tavi::Video {
class VideoPipelineElement;
}

namespace Tavi::Pipeline {

/// Creates every enabled source, starts and stops them with the GStreamer pipeline, and checks that data really comes.
///
/// Construction, Init, Start and the ignition belong to one controlling thread. Everything else is thread-safe: a
/// collector calls RunSigInt when power fails, on the thread that collects; readers ask for elements at any time.
/// Destroying it stops it. Whoever collects from it must be destroyed before it.
class PipelineManager : public GstPipelineManager,
                        public Kbase::Interfaces::IgnitionStartMode,
                        public Kbase::Interfaces::IgnitionOffMode,
                        public Kbase::Interfaces::ISignInt {
 public:
  using Element = std::shared_ptr<Kbase::Pipeline::IPipelineElement>;

  /// Calls Init: a constructed manager has its elements, nothing plays yet. `clock` (borrowed) paces the supervision.
  explicit PipelineManager(const PipelineConfig& config, Kbase::Util::IClock& clock = Kbase::Util::IClock::Steady());
  ~PipelineManager() override;

  /// The element under that key, null when it was not created. Valid until Stop. Thread-safe.
  Kbase::Pipeline::IPipelineElement* GetPipelineElement(PipelineType type) const;
  /// The same with a share in its life: a reader that keeps only a weak one notices when Stop has taken the element
  /// away. Thread-safe.
  Element ShareElement(PipelineType type) const;

  /// Thread-safe, as Start is.
  void Init() override;
  void Start() override;
  /// Stops and deletes all elements. Does nothing unless started; Init may follow. From its first moment on, before it
  /// waits for anybody, nothing restarts the unit any more. Thread-safe.
  void Stop() override;

  /// The branch of a camera or the microphone has this problem; empty when it has none, or there is no such branch.
  /// Thread-safe.
  [[nodiscard]] std::string GetProblem(PipelineType type) const;

  /// Ignition on: Start, and what an error has ended while nothing was armed begins anew; then up to 50 seconds of
  /// waiting for the first data. Restarts the unit when a camera or the GPS receiver stays silent; otherwise a
  /// GStreamer error restarts it from now on, unless it has been stopped. One that keeps going waits no longer than ten
  /// seconds, and not for what has a problem; it arms nothing.
  void RunIgnitionStart() override;
  /// Until the next Init nothing restarts the unit: not an error, and a RunIgnitionStart that runs or comes later waits
  /// for nothing. For whoever wants to stop, and for the moment when power fails. Thread-safe, waits for nobody.
  void EndSupervision();
  /// Ignition off: errors restart the unit no more. Acquisition goes on.
  void RunIgnitionOff() override;
  /// Interrupt: Stop. Thread-safe.
  void RunSigInt() override;

 private:
  using VideoElement = std::shared_ptr<Video::VideoPipelineElement>;

  void PrepareStart() override;
  [[nodiscard]] bool TakeError(GstObject* source, const std::string& text) override;
  VideoElement CreateCamera(PipelineType type, const Video::VideoConfig& config);
  void CreatePreview(PipelineType type, const Video::VideoConfig& config, const VideoElement& camera);
  void CreateAudioAndSensors();
  void AddElement(PipelineType type, Element element);
  void CreateElements();
  /// Takes everything down, whether started or only initialised.
  void TearDown();
  [[nodiscard]] bool RunProperly() const;
  /// The three that are supervised exist.
  [[nodiscard]] bool IsSupervised() const;
  [[nodiscard]] bool HasData(PipelineType type) const;
  void Arm();
  void ReviveLoop();
  void Revive();

  void KeepGoing();
  StallWatch::Outcome RestartSource(PipelineType type, bool whole);

  Kbase::Util::IClock& m_clock;
  std::atomic<bool> m_supervisionEnded{false};
  /// Arming and EndSupervision exclude each other: what was ended stays disarmed. No other lock is taken under it.
  std::mutex m_armMutex;
  /// Held while elements are created, started or taken down: two collect managers may both find that power fails.
  std::mutex m_lifecycleMutex;
  /// Guards the map, never held while an element is started, stopped or destroyed.
  mutable std::mutex m_elementsMutex;
  std::map<PipelineType, Element> m_elements;
  SourceBranches m_branches;
  /// Both used by "STALL" only, like the pause after which a pipeline that an error has ended is started again.
  std::chrono::steady_clock::time_point m_nextRevival;
  std::atomic<bool> m_restartAsked{false};
  /// Guards the pointer, never held while its thread is waited for.
  std::mutex m_watchMutex;
  /// Its thread only tries to take the lifecycle's lock, so whoever holds that may wait for it.
  std::unique_ptr<StallWatch> m_stallWatch;
};

}  // namespace Tavi::Pipeline
