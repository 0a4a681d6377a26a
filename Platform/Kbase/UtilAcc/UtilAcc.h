// Accelerations: native bytes to g and back.
#pragma once

#include <span>

namespace Kbase::UtilAcc {

/// A native byte (two's complement, 128 / `scale` to one g, the division an integer one) in g. `scale` is the full
/// scale in g, 2, 4 or 8; with 0 or one above 128 there is no such unit, and the result is 0.
float AccNativeToFloat(unsigned char native, unsigned char scale);
/// The same for many native bytes, as far as `g` has room.
void AccNativeToFloat(std::span<const unsigned char> native, unsigned char scale, std::span<float> g);

/// The native byte nearest to `g`, halves away from zero; beyond the range the end of it (-128 or 127), and 0 for
/// something that is not a number or a `scale` as above.
unsigned char AccFloatToNative(float g, unsigned char scale);

}  // namespace Kbase::UtilAcc
