// Muxing an event behind the caller's back: who does it, with what, and who is told.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "Kbase/Interfaces/IThread.h"
#include "Tavi/EventCollect/CollectorSet.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::PipelineCollect {

class CopyAhead;
class PipelineCollectManager;

/// Implemented by whoever asks for an asynchronous collect.
class CollectAsyncCallbackInterface {
 public:
  virtual ~CollectAsyncCallbackInterface() = default;
  /// Called exactly once for each collect that was started, on the mux thread, or on the collecting one when that is
  /// still busy with the event before. `output` is borrowed for the call; it lists nothing when the event was
  /// discarded, cancelled before it began, or saved by the power-failure backup. It may ask the manager for the next
  /// collect, but not destroy it.
  virtual void CollectFinished(PipelineCollectOutput& output, bool success, void* userData) = 0;
};

/// What one asynchronous mux needs; all of it borrowed until the thread has ended.
struct MuxAsyncParams {
  const CollectorMap* collectors = nullptr;
  CollectAsyncCallbackInterface* callback = nullptr;
  void* userData = nullptr;
  PipelineCollectManager* manager = nullptr;
  /// What the names of its files begin with when power fails meanwhile.
  std::string backupBase = {};
  /// What was copied ahead of it; null when nothing was.
  std::shared_ptr<CopyAhead> ahead = {};
};

class MuxAsyncInterface {
 public:
  virtual ~MuxAsyncInterface() = default;
  /// Runs on the mux thread.
  virtual void MuxAsync(MuxAsyncParams& params) = 0;
};

/// Muxes one event and ends: "MUX-EVT", "MUX-EVT-CR" in the second manager. Its destructor waits for the end.
class MuxAsyncThread final : public Kbase::Interfaces::IThread {
 public:
  MuxAsyncThread(std::string name, const MuxAsyncParams& params, MuxAsyncInterface& muxer)
      : IThread(std::move(name)), m_params(params), m_muxer(muxer) {}
  ~MuxAsyncThread() override { Wait(); }

 protected:
  void Run() override {
    m_muxer.MuxAsync(m_params);
    Cancel();
  }

 private:
  MuxAsyncParams m_params;
  MuxAsyncInterface& m_muxer;
};

}  // namespace Tavi::PipelineCollect
