// How the accelerometer sits in the unit, and the unit in the vehicle.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace Kdevice::ACC {

/// Turns what the sensor's own axes read into the unit's three: the first stands upright and reads -1 g at rest, the
/// second lies across and the third along the vehicle. A value; reentrant.
class Mounting {
 public:
  using Vector = std::array<float, 3>;

  /// The sensor's axes are the unit's.
  Mounting() = default;

  /// From the sensor's axes that are the unit's first, second and third, "-z,x,y": each letter once, "-" before one
  /// that points the other way. Empty for anything else.
  static std::optional<Mounting> Parse(std::string_view axes);

  /// Also turns the unit upright: by the smallest turn that makes a reading of -1, 0, 0 of what the unit's axes read
  /// while the vehicle stands level, of which the second and third are given, in g. Nothing happens where they are more
  /// than gravity.
  void SetRest(float secondG, float thirdG);

  [[nodiscard]] Vector Turn(const Vector& sensor) const;
  /// Turns native samples in place, three bytes each; what would leave their range becomes the end of it. Of other
  /// mountings than by quarter turns the result is rounded to native units.
  void Turn(std::span<std::uint8_t> native) const;

 private:
  [[nodiscard]] bool IsIdentity() const;

  std::array<Vector, 3> m_rows{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
};

}  // namespace Kdevice::ACC
