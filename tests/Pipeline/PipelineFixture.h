// A pipeline manager over simulated sources, and a look into its pipeline.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Support/Media.h"
#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace Tavi::Testing {

/// What the supervision does in place of each of its pauses.
struct Pauses final : Kbase::Util::IClock {
  Milliseconds Now() override { return Steady().Now(); }
  void Sleep(Milliseconds) override { ++count, pause(); }
  std::function<void()> pause;
  int count = 0;
};

class PipelineFixture : public MediaTest {
 protected:
  static constexpr auto Shared = Pipeline::GstPipelineManager::GstPipelineType::Camera01Audio;

  /// One simulated camera and no device.
  static Pipeline::PipelineConfig OneCamera() {
    Pipeline::PipelineConfig config;
    config.camera0Enabled = config.audioEnabled = config.gpsEnabled = config.accEnabled = false;
    config.camera1.device = "sim:camera0";
    return config;
  }

  static GstPadProbeReturn DropWhile(GstPad*, GstPadProbeInfo*, gpointer isStalled) {
    return *static_cast<std::atomic<bool>*>(isStalled) ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
  }

  /// The pipeline's elements of one kind.
  static std::vector<GstElement*> FindElements(GstElement* pipeline, const std::string& factory) {
    std::vector<GstElement*> found;
    for (GList* item = GST_BIN_CHILDREN(pipeline); item != nullptr; item = item->next) {
      auto* element = GST_ELEMENT(item->data);
      if (factory == GST_OBJECT_NAME(gst_element_get_factory(element))) found.push_back(element);
    }
    return found;
  }

  static GstElement* FindCamera(GstElement* pipeline, const std::string& device) {
    for (GstElement* source : FindElements(pipeline, "imxv4l2videosrc")) {
      gchar* name = nullptr;
      g_object_get(source, "device", &name, nullptr);
      const bool isFound = device == name;
      g_free(name);
      if (isFound) return source;
    }
    return nullptr;
  }

  /// Ids without a gap, and time stamps that never run back, over everything that the ring has.
  static void ExpectInOrder(Kbase::Pipeline::IPipelineElement& ring) {
    GstClockTime before = 0;
    const std::uint64_t newest = ring.GetCurrentFrameId();
    for (std::uint64_t id = 0; id <= newest; ++id) {
      const auto entry =
          std::dynamic_pointer_cast<GstUtil::GstPipelineCbElement>(ring.GetElementAt(static_cast<unsigned int>(id)));
      ASSERT_NE(entry, nullptr);
      EXPECT_EQ(entry->frameId, id);
      EXPECT_GE(GST_BUFFER_PTS(entry->buffer), before) << id;
      before = GST_BUFFER_PTS(entry->buffer);
    }
  }
};

}  // namespace Tavi::Testing
