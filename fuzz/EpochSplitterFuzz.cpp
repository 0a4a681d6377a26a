// Any bytes in any chunks and pauses: no epoch without an RMC, none too large, none that depends on the chunks.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Kdevice/GpsDevice/EpochSplitter.h"

using Kdevice::GpsDevice::EpochSplitter;

static void Require(bool condition) {
  if (!condition) std::abort();
}

/// Feeds as many bytes at once as the text's own bytes and `spread` say; `pauses`: with a pause behind each chunk.
static std::vector<std::string> Split(std::string_view text, std::size_t spread, bool pauses) {
  std::vector<std::string> blocks;
  EpochSplitter splitter([&](const EpochSplitter::Epoch& epoch) {
    Require(epoch.sizeBytes <= EpochSplitter::MaxEpochBytes && std::strlen(epoch.text) == epoch.sizeBytes);
    Require(std::strstr(blocks.emplace_back(epoch.text).c_str(), "RMC,") != nullptr);
  });
  for (std::size_t at = 0, size = 0; at < text.size(); at += size) {
    size = 1 + spread * static_cast<unsigned char>(text[at]);
    splitter.Feed(text.substr(at, size));
    if (pauses) splitter.Pause(std::chrono::hours(1));
  }
  return splitter.Flush(), blocks;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto blocks = Split(text, 0, false), paused = Split(text, 1, true);
  Require(Split(text, 1000, false) == blocks && paused.size() == blocks.size());
  // A pause may only cost an epoch's end.
  for (std::size_t i = 0; i < blocks.size(); ++i) Require(blocks[i].starts_with(paused[i]));
  return 0;
}
