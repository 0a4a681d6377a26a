// What people call the parts of an event.
#include "EventStore/PartName.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace Tavi::EventStore {
namespace {

struct Part {
  std::string_view type;
  /// With a place for the camera's name, where it is of one.
  std::string_view text;
  /// By its number in the settings; -1: of none.
  int camera = -1;
};

constexpr std::array<Part, 12> Parts{{
    {"VideoCamera1", "{}", 0},
    {"VideoCamera0", "{}", 1},
    {"VideoCamera1Stream", "{} (stream)", 0},
    {"VideoCamera0Stream", "{} (stream)", 1},
    {"Audio", "sound"},
    {"Gps", "gps"},
    {"Acc", "acc"},
    {"Other", "metrics"},
    {"ThumbnailCamera1", "still of {}", 0},
    {"ThumbnailCamera0", "still of {}", 1},
    {"Preview", "preview"},
    {"PreviewStill", "still of the preview"},
}};

}  // namespace

std::string GetPartName(std::string_view type, const CameraNames& names) {
  const auto* const part = std::ranges::find(Parts, type, &Part::type);
  if (part == Parts.end()) return std::string(type);
  if (part->camera < 0) return std::string(part->text);
  const std::string& name = names.at(static_cast<std::size_t>(part->camera));
  return fmt::format(fmt::runtime(part->text), name.empty() ? fmt::format("camera{}", part->camera) : name);
}

}  // namespace Tavi::EventStore
