// Making, adding and linking the elements of a branch.
#include "Tavi/GstUtil/BranchParts.h"

#include <string>

#include "Tavi/GstUtil/Log.h"

namespace Tavi::GstUtil {

GstElement* BranchParts::Make(const char* factory) {
  GstElement* element = gst_element_factory_make(factory, nullptr);
  if (element == nullptr) {
    m_complete = false;
    Log::Error(std::string("GStreamer has no element \"") + factory + "\": install its plug-in or set GST_PLUGIN_PATH");
    return nullptr;
  }
  m_owned.push_back(GstRef<GstElement>::Sink(element));
  return element;
}

bool BranchParts::MakeLeg(const char* leg, std::initializer_list<Part> parts) {
  const char* missing = nullptr;
  for (const auto& [factory, target] : parts) {
    *target = missing == nullptr ? gst_element_factory_make(factory, nullptr) : nullptr;
    if (*target != nullptr) {
      m_owned.push_back(GstRef<GstElement>::Sink(*target));
    } else if (missing == nullptr) {
      missing = factory;
    }
  }
  if (missing == nullptr) return true;
  for (const auto& part : parts) *part.target = nullptr;
  Log::Warning(std::string("GStreamer has no element \"") + missing + "\": there is no " + leg +
               "; install its plug-in or set GST_PLUGIN_PATH");
  return false;
}

void AddToBin(GstBin* bin, std::initializer_list<GstElement*> elements) {
  for (GstElement* element : elements) {
    if (element != nullptr) gst_bin_add(bin, element);
  }
}

void LinkChain(std::initializer_list<GstElement*> chain) {
  GstElement* previous = nullptr;
  for (GstElement* element : chain) {
    if (element == nullptr) continue;
    if (previous != nullptr) gst_element_link(previous, element);
    previous = element;
  }
}

}  // namespace Tavi::GstUtil
