// Material to record: H.264 access units and MP3 frames.
#include "Simulator/EncodedMaterial.h"

#include <gst/app/gstappsink.h>

#include <fstream>
#include <stdexcept>

#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::Simulator {
namespace {

using GstUtil::GstRef;

/// The buffers that a pipeline of this description gives, up to its end.
std::vector<AccessUnitBytes> Run(std::string description) {
  gst_init(nullptr, nullptr);
  description += " ! appsink name=sink sync=false";
  const auto pipeline = GstRef<GstElement>::Sink(
      gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, nullptr));
  if (!pipeline) throw std::runtime_error("cannot make " + description);
  const auto sink = GstRef<GstElement>::Adopt(gst_bin_get_by_name(GST_BIN(pipeline.Get()), "sink"));
  gst_element_set_state(pipeline.Get(), GST_STATE_PLAYING);
  std::vector<AccessUnitBytes> buffers;
  while (const auto sample = GstRef<GstSample>::Adopt(gst_app_sink_pull_sample(GST_APP_SINK(sink.Get())))) {
    GstBuffer* buffer = gst_sample_get_buffer(sample.Get());
    AccessUnitBytes& bytes = buffers.emplace_back(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
  }
  gst_element_set_state(pipeline.Get(), GST_STATE_NULL);
  if (buffers.empty()) throw std::runtime_error("nothing comes from " + description);
  return buffers;
}

}  // namespace

std::vector<AccessUnitBytes> EncodeH264(int width, int height, int fps, int gop, int frames,
                                        const std::string& options) {
  // The element decides on these two itself, whatever the options say.
  const bool delimiters = options.find("aud=1") != std::string::npos;
  const bool interlaced = options.find("interlaced=1") != std::string::npos;
  // Rings that grow and wander: every frame has bits to spend.
  return Run("videotestsrc pattern=zone-plate kx2=2 ky2=2 kt=5 kxt=1 num-buffers=" + std::to_string(frames) +
             " ! video/x-raw,format=I420,width=" + std::to_string(width) + ",height=" + std::to_string(height) +
             ",framerate=" + std::to_string(fps) + "/1,interlace-mode=" + (interlaced ? "interleaved" : "progressive") +
             " ! x264enc byte-stream=true bframes=0 speed-preset=ultrafast tune=zerolatency threads=1 pass=qual" +
             " quantizer=23 bitrate=3000 key-int-max=" + std::to_string(gop) +
             " aud=" + (delimiters ? "true" : "false") + " option-string=\"repeat-headers=1:scenecut=0" +
             (options.empty() ? "" : ":" + options) + "\"" + " ! video/x-h264,stream-format=byte-stream,alignment=au");
}

std::vector<std::uint8_t> EncodeMp3(double seconds) {
  const int frames = static_cast<int>(seconds * 44100 / 1152);
  return Join(Run("audiotestsrc samplesperbuffer=1152 num-buffers=" + std::to_string(frames) +
                  " ! audio/x-raw,rate=44100,channels=1 ! lamemp3enc target=bitrate bitrate=64 cbr=true"));
}

std::vector<std::uint8_t> Join(const std::vector<AccessUnitBytes>& units) {
  std::vector<std::uint8_t> all;
  for (const auto& unit : units) all.insert(all.end(), unit.begin(), unit.end());
  return all;
}

void WriteBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
}

}  // namespace Tavi::Simulator
