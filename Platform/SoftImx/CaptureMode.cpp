// Which of a capture device's modes serves best.
#include "SoftImx/CaptureMode.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <tuple>
#include <vector>

namespace SoftImx {
namespace {

struct Fraction {
  int numerator = 0;
  int denominator = 1;
};

double ToRate(Fraction rate) {
  return static_cast<double>(rate.numerator) / rate.denominator;
}

/// Rates up to a thousandth below count as reached: 30000/1001 is 30 to whoever asks for it.
bool Reaches(Fraction rate, Fraction asked) {
  constexpr double Slack = 1.0 - 1.0 / 999;
  return ToRate(rate) >= ToRate(asked) * Slack;
}

/// Calls `take` with the value, or with each that a list holds.
template <class Take>
void ForEachValue(const GValue* value, const Take& take) {
  if (value == nullptr || !GST_VALUE_HOLDS_LIST(value)) {
    take(value);
    return;
  }
  for (guint i = 0; i < gst_value_list_get_size(value); ++i) take(gst_value_list_get_value(value, i));
}

/// The number itself, or the one of a range that is nearest to `asked` without being below where that can be; 0 when it
/// is neither.
int Nearest(const GValue* value, int asked) {
  if (value == nullptr) return 0;
  if (G_VALUE_HOLDS_INT(value)) return g_value_get_int(value);
  if (!GST_VALUE_HOLDS_INT_RANGE(value)) return 0;
  const int low = gst_value_get_int_range_min(value);
  const int high = gst_value_get_int_range_max(value);
  const int step = std::max(gst_value_get_int_range_step(value), 1);
  if (asked <= low) return low;
  return asked >= high ? high : std::min(low + (asked - low + step - 1) / step * step, high);
}

std::optional<Fraction> Nearest(const GValue* value, Fraction asked) {
  if (value == nullptr) return asked;  // A device that does not tell its rate is believed to have the right one.
  const auto read = [](const GValue* from) {
    return Fraction{gst_value_get_fraction_numerator(from), gst_value_get_fraction_denominator(from)};
  };
  if (GST_VALUE_HOLDS_FRACTION(value)) return read(value);
  if (!GST_VALUE_HOLDS_FRACTION_RANGE(value)) return {};
  const Fraction low = read(gst_value_get_fraction_range_min(value));
  const Fraction high = read(gst_value_get_fraction_range_max(value));
  if (ToRate(asked) <= ToRate(low)) return low;
  return ToRate(asked) >= ToRate(high) ? high : asked;
}

std::optional<Coding> CodingOf(const GstStructure* structure, const GstCapsFeatures* features) {
  const bool isPlain =
      features == nullptr || gst_caps_features_is_equal(features, GST_CAPS_FEATURES_MEMORY_SYSTEM_MEMORY);
  if (!isPlain) return {};
  if (gst_structure_has_name(structure, "video/x-raw")) return Coding::Raw;
  if (gst_structure_has_name(structure, "image/jpeg")) return Coding::Jpeg;
  if (gst_structure_has_name(structure, "video/x-h264")) return Coding::H264;
  return {};
}

/// Adds the mode of this size and format in each of its rates.
void AddRates(const GstStructure* structure, CaptureMode mode, const PictureRate& asked,
              std::vector<CaptureMode>& modes) {
  const Fraction askedRate{asked.rateNumerator, asked.rateDenominator};
  ForEachValue(gst_structure_get_value(structure, "framerate"), [&](const GValue* value) {
    const auto rate = Nearest(value, askedRate);
    if (!rate || rate->numerator <= 0 || rate->denominator <= 0) return;
    mode.picture.rateNumerator = rate->numerator;
    mode.picture.rateDenominator = rate->denominator;
    modes.push_back(mode);
  });
}

void AddModes(const GstStructure* structure, Coding coding, const PictureRate& asked, std::vector<CaptureMode>& modes) {
  // Only raw pictures have one.
  const GValue* format = coding == Coding::Raw ? gst_structure_get_value(structure, "format") : nullptr;
  ForEachValue(format, [&](const GValue* name) {
    CaptureMode mode{coding, name != nullptr && G_VALUE_HOLDS_STRING(name) ? g_value_get_string(name) : "", {}};
    if (coding == Coding::Raw && mode.format.empty()) return;
    ForEachValue(gst_structure_get_value(structure, "width"), [&](const GValue* width) {
      mode.picture.width = Nearest(width, asked.width);
      ForEachValue(gst_structure_get_value(structure, "height"), [&](const GValue* height) {
        mode.picture.height = Nearest(height, asked.height);
        if (mode.picture.width > 0 && mode.picture.height > 0) AddRates(structure, mode, asked, modes);
      });
    });
  });
}

/// From what needs no work to what loses most.
int Rank(const CaptureMode& mode, const PictureRate& asked, bool ownH264) {
  constexpr std::array<std::string_view, 8> Common{"I420", "YV12", "NV12", "NV21", "YUY2", "UYVY", "YVYU", "VYUY"};
  constexpr int Count = static_cast<int>(Common.size());
  if (mode.coding == Coding::H264) return ownH264 && mode.picture == asked ? 0 : Count + 3;
  if (mode.coding == Coding::Jpeg) return Count + 2;
  if (mode.format.starts_with("GRAY")) return Count + 4;
  const auto found = std::find(Common.begin(), Common.end(), mode.format);
  return 1 + static_cast<int>(found - Common.begin());
}

/// Smaller is better.
auto Order(const CaptureMode& mode, const PictureRate& asked, bool ownH264) {
  const PictureRate& own = mode.picture;
  const Fraction rate{own.rateNumerator, own.rateDenominator};
  const Fraction askedRate{asked.rateNumerator, asked.rateDenominator};
  const auto part = [](double have, double want) { return std::min(1.0, have / want); };
  const double reached = Reaches(rate, askedRate) ? 1.0 : part(ToRate(rate), ToRate(askedRate));
  const double served = part(own.width, asked.width) * part(own.height, asked.height) * reached;
  // Grey pictures are worth a third.
  const double worth = mode.format.starts_with("GRAY") ? served / 3 : served;
  return std::tuple(-worth, Rank(mode, asked, ownH264), std::int64_t{own.width} * own.height, ToRate(rate));
}

}  // namespace

std::optional<CaptureMode> ChooseMode(const GstCaps* offered, const PictureRate& asked, Abilities abilities) {
  std::vector<CaptureMode> modes;
  for (guint i = 0; i < gst_caps_get_size(offered); ++i) {
    const GstStructure* structure = gst_caps_get_structure(offered, i);
    const auto coding = CodingOf(structure, gst_caps_get_features(offered, i));
    const bool isUsable = coding == Coding::Raw || (coding == Coding::Jpeg && abilities.jpeg) ||
                          (coding == Coding::H264 && abilities.h264);
    if (isUsable) AddModes(structure, *coding, asked, modes);
  }
  const auto best = std::min_element(modes.begin(), modes.end(), [&](const auto& a, const auto& b) {
    return Order(a, asked, abilities.ownH264) < Order(b, asked, abilities.ownH264);
  });
  return best == modes.end() ? std::nullopt : std::optional(*best);
}

GstCaps* ToCaps(const CaptureMode& mode) {
  const auto& [width, height, numerator, denominator] = mode.picture;
  const char* name = mode.coding == Coding::Raw    ? "video/x-raw"
                     : mode.coding == Coding::Jpeg ? "image/jpeg"
                                                   : "video/x-h264";
  GstCaps* caps = gst_caps_new_simple(name, "width", G_TYPE_INT, width, "height", G_TYPE_INT, height, "framerate",
                                      GST_TYPE_FRACTION, numerator, denominator, nullptr);
  if (!mode.format.empty()) gst_caps_set_simple(caps, "format", G_TYPE_STRING, mode.format.c_str(), nullptr);
  return caps;
}

std::string Describe(const PictureRate& picture) {
  char text[80];
  std::snprintf(text, sizeof text, "%dx%d at %.6g frames/s", picture.width, picture.height,
                ToRate({picture.rateNumerator, picture.rateDenominator}));
  return text;
}

std::string Describe(const CaptureMode& mode) {
  const std::string name = mode.coding == Coding::Raw ? mode.format : mode.coding == Coding::Jpeg ? "MJPEG" : "H.264";
  return name + " " + Describe(mode.picture);
}

}  // namespace SoftImx
