// Whether an encoder's stream keeps the contract, found out by a few frames.
#pragma once

#include <string>

#include "SoftImx/EncoderKind.h"

namespace SoftImx {

/// Encodes two groups of pictures and looks at what comes: an access unit for each frame, IDR frames with parameter
/// sets where they were ordered and nowhere else, no B frames. Empty when it is so, else what is wrong. Blocks until it
/// is through, at most 10 s; what the elements report goes nowhere else.
[[nodiscard]] std::string TryEncoder(const EncoderKind& kind);

}  // namespace SoftImx
