// The 5 by 7 dot font of the simulated scene.
#pragma once

#include <array>
#include <cstdint>

namespace SoftImx {

constexpr int GlyphColumns = 5;
constexpr int GlyphRows = 7;
/// Columns from one character to the next.
constexpr int GlyphAdvance = GlyphColumns + 1;

/// One character, a row a byte from the top; bit 4 is the left column.
using Glyph = std::array<std::uint8_t, GlyphRows>;

/// The dots of `character`. Lower case is drawn as upper case, what the font does not have as a box. Reentrant.
[[nodiscard]] const Glyph& FindGlyph(char character);

}  // namespace SoftImx
