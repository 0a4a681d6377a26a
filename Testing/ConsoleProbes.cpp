// Console probes for manual debugging.
#include "Testing/ConsoleProbes.h"

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>

#include "Ksystem/FileUtils/Kfile.h"
#include "Pipeline/GstRef.h"
#include "Video/VideoPipelineCbElement.h"
#include "Video/VideoPipelineElement.h"

namespace Tavi::Testing {
namespace {

/// Writes one entry's bytes; false when it has none or the file takes no more.
bool WriteEntry(FILE* file, const Kbase::Pipeline::IPipelineElement::Entry& entry) {
  const auto* media = dynamic_cast<const GstUtil::GstPipelineCbElement*>(entry.get());
  if (media == nullptr || !GstUtil::IsUsable(media->buffer)) return false;
  const auto hold = GstUtil::GstRef<GstBuffer>::Share(media->buffer);
  GstMapInfo map;
  if (!gst_buffer_map(hold.Get(), &map, GST_MAP_READ)) return false;
  const bool written = Ksystem::FileUtils::Kfile::Write(map.data, map.size, file);
  gst_buffer_unmap(hold.Get(), &map);
  return written;
}

}  // namespace

void TestVideo(Video::VideoPipelineElement* element) {
  const auto entry = element != nullptr ? element->RetrieveCurrent() : nullptr;
  const auto* frame = dynamic_cast<const Video::VideoPipelineCbElement*>(entry.get());
  if (frame == nullptr) {
    std::cout << "NULL ELEMENT Video...\n" << std::flush;
  } else {
    std::cout << "Video Frame ID: " << frame->frameId << "\n" << std::flush;
  }
}

void WriteVideo(Video::VideoPipelineElement* element, const std::string& path, int first, int last) {
  if (element == nullptr) return;
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "wbe"), std::fclose);
  if (!file) {
    std::perror(path.c_str());
    return;
  }
  for (int pos = first; pos <= last; ++pos) {
    WriteEntry(file.get(), element->GetElementAt(element->SeekRelative(pos, 0)));
  }
}

double ConvertAcc(unsigned char value, unsigned char scale) {
  const int unitsPerG = scale != 0 ? 128 / scale : 0;
  return unitsPerG != 0 ? static_cast<double>(static_cast<std::int8_t>(value)) / unitsPerG : 0.0;
}

}  // namespace Tavi::Testing
