// Accelerations: native bytes to g and back.
#include "Kbase/UtilAcc/UtilAcc.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Kbase::UtilAcc {
namespace {

using Native = std::numeric_limits<signed char>;

int GetUnitsPerG(unsigned char scale) {
  // The usual range, 300 times a second, without the division that a Cortex-A9 has not.
  if (scale == 4) return 32;
  return scale == 0 ? 0 : 128 / scale;
}

}  // namespace

float AccNativeToFloat(unsigned char native, unsigned char scale) {
  float g = 0.0F;
  AccNativeToFloat({&native, 1}, scale, {&g, 1});
  return g;
}

void AccNativeToFloat(std::span<const unsigned char> native, unsigned char scale, std::span<float> g) {
  const int unitsPerG = GetUnitsPerG(scale);
  const auto toG = [unitsPerG](unsigned char value) {
    return unitsPerG == 0 ? 0.0F : static_cast<float>(static_cast<signed char>(value)) / static_cast<float>(unitsPerG);
  };
  std::transform(native.begin(), native.begin() + static_cast<std::ptrdiff_t>(std::min(native.size(), g.size())),
                 g.begin(), toG);
}

unsigned char AccFloatToNative(float g, unsigned char scale) {
  if (std::isnan(g)) return 0;
  const int unitsPerG = GetUnitsPerG(scale);
  if (unitsPerG == 0) return 0;
  const float native = std::clamp(g * static_cast<float>(unitsPerG), float{Native::min()}, float{Native::max()});
  return static_cast<unsigned char>(static_cast<signed char>(std::lround(native)));
}

}  // namespace Kbase::UtilAcc
