// What an element has on its branch: the gate behind its device, others on the way, and what its sinks deliver.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "Kbase/Util/EntryGuard.h"
#include "Tavi/GstUtil/AppSink.h"
#include "Tavi/GstUtil/GstRef.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::GstUtil {

/// Owns what an element has on its branch: probes, callbacks, and the pipeline where that is the element's own. Start
/// and stop open and close the gate from any thread; Deliver runs on the sinks' streaming threads, the rest belongs to
/// the thread that builds the element and takes it apart. Detach comes before what the callbacks use is gone.
class BranchEnds {
 public:
  /// `lost` is the log line of a buffer for which there was no memory: "a frame of sound is lost".
  explicit BranchEnds(std::string lost) : m_guard(Log::Tag, std::move(lost)) {}

  /// A pipeline of the element's own, borrowed; Detach takes it to NULL. Null when it cannot be made.
  GstElement* MakePipeline(const std::string& name);
  [[nodiscard]] GstElement* GetOwnPipeline() const { return m_ownPipeline.Get(); }
  /// Puts the gate behind `source`: `probe` is called with `element` and answers with Pass.
  void ConnectSource(GstElement* source, GstPadProbeCallback probe, void* element);
  /// Has `probe` called with `element` for each buffer before it enters `queue`, on the thread that brings it.
  void ConnectQueue(GstElement* queue, GstPadProbeCallback probe, void* element);
  /// `newSample` is called with `element` and answers with Deliver.
  void ConnectSink(GstElement* sink, GstFlowReturn (*newSample)(GstAppSink*, void*), void* element);
  /// Closes the gate, takes probes and callbacks off the branch and waits for those under way.
  void Detach();

  void SetRunning(bool running) { m_running.store(running, std::memory_order_release); }
  /// A streaming thread asks this first, which orders it after the thread that built the element.
  [[nodiscard]] bool IsRunning() const { return m_running.load(std::memory_order_acquire); }
  /// Lets buffers through between start and stop.
  [[nodiscard]] GstPadProbeReturn Pass() const { return IsRunning() ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP; }

  /// Hands the sink's next sample, which has a buffer, to `take`; what that throws ends this one only.
  template <class Take>
  GstFlowReturn Deliver(GstAppSink* sink, Take&& take) noexcept {
    static_cast<void>(IsRunning());
    m_guard.Run([&] {
      if (const auto sample = PullSample(sink)) take(sample.Get());
    });
    return GST_FLOW_OK;
  }

 private:
  struct Probe {
    GstRef<GstPad> pad;
    gulong id;
  };
  void AddProbe(GstElement* element, const char* pad, GstPadProbeCallback probe, void* user);

  std::atomic<bool> m_running{false};
  std::vector<Probe> m_probes;
  std::vector<GstRef<GstElement>> m_sinks;
  Kbase::Util::EntryGuard m_guard;
  GstRef<GstElement> m_ownPipeline;
};

}  // namespace Tavi::GstUtil
