// The GStreamer side of the acquisition.
#include "Tavi/Pipeline/GstPipelineManager.h"

#include <algorithm>
#include <iostream>

#include "Ksystem/System/Reboot.h"
#include "Tavi/GstUtil/GstRef.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/GstUtil/MainLoopThread.h"
#include "Tavi/GstUtil/StateTrial.h"

namespace Tavi::Pipeline {
namespace {

constexpr const char* TurnOffMessage = "turn_off";

/// Pauses it; the running time that it has come to, if that is behind `runningTime`, else this.
GstClockTime Pause(GstElement* pipeline, GstClockTime runningTime) {
  gst_element_set_state(pipeline, GST_STATE_PAUSED);
  const GstClockTime reached = gst_element_get_start_time(pipeline);
  return GST_CLOCK_TIME_IS_VALID(reached) ? std::max(reached, runningTime) : runningTime;
}

void PlayBySystemClock(GstElement* pipeline, GstClockTime runningTime) {
  const auto clock = GstUtil::GstRef<GstClock>::Adopt(gst_system_clock_obtain());
  gst_pipeline_use_clock(GST_PIPELINE(pipeline), clock.Get());
  gst_element_set_start_time(pipeline, runningTime);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
}

bool GoesBySystemClock(GstElement* pipeline) {
  const auto clock = GstUtil::GstRef<GstClock>::Adopt(gst_element_get_clock(pipeline));
  const auto system = GstUtil::GstRef<GstClock>::Adopt(gst_system_clock_obtain());
  return clock.Get() == system.Get();
}

}  // namespace

GstPipelineManager::GstPipelineManager(const PipelineConfig& config) : m_config(config) {}

GstPipelineManager::~GstPipelineManager() = default;

void GstPipelineManager::Init() {
  if (m_initialized || m_started) return;
  m_initialized = true;
  gst_init(nullptr, nullptr);
  m_threads = std::make_unique<GstUtil::StreamThreads>();
  m_loop = g_main_loop_new(nullptr, FALSE);
  if (m_config.camera0Enabled || m_config.camera1Enabled || m_config.audioEnabled) {
    m_pipelines[GstPipelineType::Camera01Audio] = CreateGstPipeline("Camera01Audio");
  }
}

void GstPipelineManager::Start() {
  if (!m_initialized || m_started) return;
  m_started = true;
  PrepareStart();
  for (const auto& [type, pipeline] : m_pipelines) gst_element_set_state(pipeline, GST_STATE_PLAYING);
  m_loopThread = MainLoopThread::Run(m_loop);
}

void GstPipelineManager::Stop() {
  m_threads->Hurry();
  StopMainLoop();
  for (const auto& [type, pipeline] : m_pipelines) {
    gst_element_set_state(pipeline, GST_STATE_NULL);
    GstBus* bus = gst_element_get_bus(pipeline);
    gst_bus_remove_watch(bus);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
  }
  if (m_loop != nullptr) g_main_loop_unref(m_loop);
  m_pipelines.clear();
  m_loop = nullptr;
  m_initialized = false;
  m_started = false;
  m_rebootOnError = false;
}

void GstPipelineManager::StopMainLoop() {
  if (m_loopThread) m_loopThread->Quit();
  m_loopThread.reset();
}

bool GstPipelineManager::HasLoopEnded() const {
  return m_started && (!m_loopThread || m_loopThread->HasEnded());
}

void GstPipelineManager::RestartPipelines(GstClockTime runningTime) {
  for (const auto& [type, pipeline] : m_pipelines) {
    const GstClockTime time = Pause(pipeline, runningTime);
    // The errors that wait on its bus go with the old life.
    gst_element_set_state(pipeline, GST_STATE_NULL);
    PrepareStart();
    gst_element_set_state(pipeline, GST_STATE_PAUSED);
    PlayBySystemClock(pipeline, time);
  }
  if (HasLoopEnded()) m_loopThread = MainLoopThread::Run(m_loop);
}

void GstPipelineManager::ChangeToSystemClock(GstClockTime runningTime) {
  for (const auto& [type, pipeline] : m_pipelines) {
    if (!GoesBySystemClock(pipeline)) PlayBySystemClock(pipeline, Pause(pipeline, runningTime));
  }
}

GstElement* GstPipelineManager::GetGstPipeline(GstPipelineType type) const {
  const auto found = m_pipelines.find(type);
  return found == m_pipelines.end() ? nullptr : found->second;
}

GstElement* GstPipelineManager::CreateGstPipeline(const std::string& name) {
  GstElement* pipeline = gst_pipeline_new(name.c_str());
  GstBus* bus = gst_element_get_bus(pipeline);
  gst_bus_add_watch(bus, BusCall, this);
  gst_object_unref(bus);
  m_threads->Attach(pipeline);
  return pipeline;
}

gboolean GstPipelineManager::BusCall(GstBus* /*bus*/, GstMessage* message, gpointer manager) noexcept {
  auto* self = static_cast<GstPipelineManager*>(manager);
  self->m_guard.Run([self, message] { self->Handle(message); });
  return TRUE;
}

void GstPipelineManager::Handle(GstMessage* message) {
  switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ERROR:
      HandleError(message);
      break;
    case GST_MESSAGE_INFO:
      GstUtil::LogInfo(message);
      break;
    case GST_MESSAGE_ELEMENT:
      HandleElementMessage(message);
      break;
    case GST_MESSAGE_EOS:
      std::cout << "GST_MESSAGE_EOS REACHED !!!\n" << std::flush;
      g_main_loop_quit(m_loop);
      break;
    default:
      break;
  }
}

void GstPipelineManager::HandleError(GstMessage* message) {
  GError* error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  const std::string text = error->message != nullptr ? error->message : "";
  if (error->message != nullptr) {
    std::cout << "ERROR:" << text << "\n" << std::flush;
  } else {
    std::cout.setstate(std::ios::badbit);
  }
  g_error_free(error);
  if (TakeError(GST_MESSAGE_SRC(message), text)) return;
  g_main_loop_quit(m_loop);
  if (m_rebootOnError) {
    // A line for which there is no memory keeps nothing from restarting.
    m_guard.Run([] {
      Log::Error("Fatal gstreamer error");
      Log::Info("Rebooting...");
    });
    Ksystem::System::Reboot();
  }
}

void GstPipelineManager::HandleElementMessage(GstMessage* message) {
  const GstStructure* structure = gst_message_get_structure(message);
  // The address, not the name: whoever reads this output counts the lines. A later message may have the same one.
  std::cout << "MSG: " << static_cast<const void*>(structure) << "\n" << std::flush;
  if (gst_structure_has_name(structure, TurnOffMessage)) g_main_loop_quit(m_loop);
}

}  // namespace Tavi::Pipeline
