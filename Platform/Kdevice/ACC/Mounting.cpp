// How the accelerometer sits in the unit, and the unit in the vehicle.
#include "Kdevice/ACC/Mounting.h"

#include <algorithm>
#include <cmath>

namespace Kdevice::ACC {
namespace {

constexpr std::size_t Axes = 3;

using Matrix = std::array<Mounting::Vector, Axes>;

Matrix Multiply(const Matrix& left, const Matrix& right) {
  Matrix product{};
  for (std::size_t row = 0; row < Axes; ++row) {
    for (std::size_t column = 0; column < Axes; ++column) {
      for (std::size_t i = 0; i < Axes; ++i) product[row][column] += left[row][i] * right[i][column];
    }
  }
  return product;
}

}  // namespace

std::optional<Mounting> Mounting::Parse(std::string_view axes) {
  Mounting mounting;
  mounting.m_rows = {};
  std::array<bool, Axes> isUsed{};
  for (std::size_t row = 0; row < Axes; ++row) {
    const bool isTurned = axes.starts_with('-');
    if (isTurned) axes.remove_prefix(1);
    const std::size_t axis = axes.empty() ? Axes : static_cast<std::size_t>(axes.front() - 'x');
    if (axis >= Axes || isUsed[axis]) return std::nullopt;
    isUsed[axis] = true;
    mounting.m_rows[row][axis] = isTurned ? -1.0F : 1.0F;
    axes.remove_prefix(1);
    if (row + 1 < Axes && !axes.starts_with(',')) return std::nullopt;
    if (row + 1 < Axes) axes.remove_prefix(1);
  }
  return axes.empty() ? std::optional(mounting) : std::nullopt;
}

/// By Rodrigues' formula, about the axis that stands on both directions: with the reading at rest r and (-1, 0, 0) = e,
/// v = r x e = (0, -z, y), it is 1 + [v] + [v][v] / (1 + r e).
void Mounting::SetRest(float secondG, float thirdG) {
  const float rest = 1.0F - secondG * secondG - thirdG * thirdG;
  if (!(rest > 0.0F)) return;
  const float cosine = std::sqrt(rest);
  const Matrix cross{{{0, -secondG, -thirdG}, {secondG, 0, 0}, {thirdG, 0, 0}}};
  const Matrix square = Multiply(cross, cross);
  Matrix turn{};
  for (std::size_t row = 0; row < Axes; ++row) {
    for (std::size_t column = 0; column < Axes; ++column) {
      turn[row][column] = (row == column ? 1.0F : 0.0F) + cross[row][column] + square[row][column] / (1.0F + cosine);
    }
  }
  m_rows = Multiply(turn, m_rows);
}

Mounting::Vector Mounting::Turn(const Vector& sensor) const {
  Vector turned{};
  for (std::size_t row = 0; row < Axes; ++row) {
    for (std::size_t i = 0; i < Axes; ++i) turned[row] += m_rows[row][i] * sensor[i];
  }
  return turned;
}

void Mounting::Turn(std::span<std::uint8_t> native) const {
  if (IsIdentity()) return;
  for (; native.size() >= Axes; native = native.subspan(Axes)) {
    Vector sample{};
    for (std::size_t i = 0; i < Axes; ++i) sample[i] = static_cast<float>(static_cast<std::int8_t>(native[i]));
    sample = Turn(sample);
    for (std::size_t i = 0; i < Axes; ++i) {
      native[i] =
          static_cast<std::uint8_t>(static_cast<std::int8_t>(std::lround(std::clamp(sample[i], -128.0F, 127.0F))));
    }
  }
}

bool Mounting::IsIdentity() const {
  return m_rows == Mounting().m_rows;
}

}  // namespace Kdevice::ACC
