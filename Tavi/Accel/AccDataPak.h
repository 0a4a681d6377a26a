// The record that one block of acceleration samples becomes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Tavi::Accel {

/// What an accelerometer's media buffer holds, whole. Byte i belongs to axis i modulo 3; a full block is ten samples.
struct AccDataPak {
  static constexpr std::size_t BlockBytes = 30;

  /// The block as the device delivered it; the rest is 0.
  std::array<std::uint8_t, 32> native{};
  /// For each native byte the mean of its axis in g after that byte; 0 where there is none.
  std::array<float, BlockBytes> g{};
  /// The full scale in g: 2, 4 or 8.
  std::uint8_t scale = 0;
};

static_assert(std::is_trivially_copyable_v<AccDataPak>);
static_assert(sizeof(AccDataPak) == 156 && offsetof(AccDataPak, g) == 32 && offsetof(AccDataPak, scale) == 152);

}  // namespace Tavi::Accel
