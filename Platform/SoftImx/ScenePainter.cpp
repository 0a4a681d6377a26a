// Paints the simulated camera's picture for a moment of wall time.
#include "SoftImx/ScenePainter.h"

#include <libyuv.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <numbers>

#include "SoftImx/BitmapFont.h"

namespace SoftImx {
namespace {

constexpr int Width = ScenePainter::Width;
constexpr int Height = ScenePainter::Height;
constexpr std::int64_t SecondNs = 1'000'000'000;

/// How far a grain moves a pixel's luma at most: about what a sensor's noise does at dusk.
constexpr int GrainLuma = 3;
/// A frame shows the next grain picture at up to 60 frames a second.
constexpr std::int64_t GrainNs = SecondNs / 60;

constexpr int HorizonY = 430;
constexpr int KerbY = 500;
constexpr Yuv White{235, 128, 128};
constexpr Yuv Black{18, 128, 128};
constexpr Yuv Marking{190, 122, 134};
constexpr Yuv Tarmac{58, 129, 127};
constexpr Yuv Lamp{210, 70, 150};

// The clock and the name keep clear of the edges, so that a cropped or scaled picture still shows them.
constexpr int NameX = 104;
constexpr int NameY = 44;
constexpr int NameDot = 8;
constexpr int ClockDot = 12;
constexpr int ClockCharacters = 12;
constexpr int ClockWidth = (ClockCharacters * GlyphAdvance - 1) * ClockDot;
constexpr int ClockX = (Width - ClockWidth) / 2;
constexpr int ClockY = 160;
constexpr int ClockMargin = 24;

constexpr int CarLength = 200;
constexpr std::int64_t CarPeriodNs = 6 * SecondNs;

struct Rect {
  int x;
  int y;
  int width;
  int height;
};

/// A picture to paint on, in the street's coordinates whatever its own size.
struct Canvas {
  I420Planes planes;
  int width;
  int height;
};

/// The planes of a picture that lies in one piece.
I420Planes PlanesOf(std::uint8_t* pixels, int width, int height) {
  std::uint8_t* const chroma = pixels + width * height;
  return {{pixels, chroma, chroma + width * height / 4}, {width, width / 2, width / 2}};
}

/// Fills what of `rect` lies in the picture. Chroma is half size: all callers keep to even coordinates.
void Fill(const Canvas& canvas, Rect rect, Yuv colour) {
  const auto& p = canvas.planes;
  const auto toX = [&canvas](int x) { return std::clamp(x, 0, Width) * canvas.width / Width; };
  const auto toY = [&canvas](int y) { return std::clamp(y, 0, Height) * canvas.height / Height; };
  const int left = toX(rect.x);
  const int top = toY(rect.y);
  const int right = toX(rect.x + rect.width);
  const int bottom = toY(rect.y + rect.height);
  if (right <= left || bottom <= top) return;
  libyuv::I420Rect(p.data[0], p.stride[0], p.data[1], p.stride[1], p.data[2], p.stride[2], left, top, right - left,
                   bottom - top, colour.y, colour.u, colour.v);
}

/// A span of equal height on both sides of `centreX`, `halfWidth` rounded to the chroma grid.
void FillSpan(const Canvas& p, int centreX, int y, double halfWidth, Yuv colour) {
  const int half = static_cast<int>(halfWidth) & ~1;
  Fill(p, {(centreX & ~1) - half, y, 2 * half, 2}, colour);
}

void FillDisc(const Canvas& p, int centreX, int centreY, int radius, Yuv colour) {
  for (int dy = -radius; dy < radius; dy += 2) {
    FillSpan(p, centreX, centreY + dy, std::sqrt(double(radius) * radius - double(dy + 1) * (dy + 1)), colour);
  }
}

void DrawGlyphRow(const Canvas& p, int bits, Rect dot, Yuv colour) {
  for (int column = 0; column < GlyphColumns;) {
    int run = 0;
    while (column + run < GlyphColumns && (bits >> (GlyphColumns - 1 - column - run) & 1) != 0) ++run;
    if (run > 0) Fill(p, {dot.x + column * dot.width, dot.y, run * dot.width, dot.height}, colour);
    column += run + 1;
  }
}

void DrawText(const Canvas& p, std::string_view text, int x, int y, int dotSize, Yuv colour) {
  for (const char character : text) {
    const Glyph& glyph = FindGlyph(character);
    for (int row = 0; row < GlyphRows; ++row) {
      DrawGlyphRow(p, glyph[static_cast<std::size_t>(row)], {x, y + row * dotSize, dotSize, dotSize}, colour);
    }
    x += GlyphAdvance * dotSize;
  }
}

/// 64-bit FNV-1a with a final mix, so that names that differ in the last letter differ in every bit.
std::uint64_t HashName(std::string_view name) {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const char character : name) hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001b3U;
  hash = (hash ^ (hash >> 33)) * 0xff51afd7ed558ccdU;
  return hash ^ (hash >> 33);
}

/// Draws numbers from the name's hash (xorshift): the same name always builds the same street.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : m_state(seed | 1) {}
  /// An even number in [low, high).
  int Even(int low, int high) { return (low + static_cast<int>(Next() % static_cast<std::uint64_t>(high - low))) & ~1; }
  /// Any number in [low, high].
  int Any(int low, int high) { return low + static_cast<int>(Next() % static_cast<std::uint64_t>(high - low + 1)); }
  bool Chance(int percent) { return Next() % 100 < static_cast<std::uint64_t>(percent); }

 private:
  std::uint64_t Next() {
    m_state ^= m_state << 13;
    m_state ^= m_state >> 7;
    m_state ^= m_state << 17;
    return m_state >> 11;
  }
  std::uint64_t m_state;
};

/// Luma `y` in the direction `hue` (radians) of the colour plane.
Yuv Tinted(int y, double hue, double strength) {
  return {y, 128 + static_cast<int>(strength * std::cos(hue)), 128 + static_cast<int>(strength * std::sin(hue))};
}

void PaintSky(const Canvas& p, double hue) {
  for (int y = 0; y < HorizonY; y += 2) {
    const double low = double(y) / HorizonY;
    Fill(p, {0, y, Width, 2}, Tinted(static_cast<int>(60 + 70 * low), hue, 34 - 12 * low));
  }
}

void PaintBuilding(const Canvas& p, Rect house, Yuv wall, Dice& dice) {
  Fill(p, house, wall);
  for (int y = house.y + 12; y < HorizonY - 16; y += 24) {
    for (int x = house.x + 10; x < house.x + house.width - 14; x += 22) {
      if (dice.Chance(45)) Fill(p, {x, y, 10, 12}, Lamp);
    }
  }
}

void PaintSkyline(const Canvas& p, double hue, Dice& dice) {
  for (int x = 0; x < Width;) {
    const int width = dice.Even(60, 150);
    const int height = dice.Even(40, 150);
    PaintBuilding(p, {x, HorizonY - height, width, height}, Tinted(dice.Even(32, 54), hue, 14), dice);
    x += width + dice.Even(0, 40);
  }
}

void PaintRoad(const Canvas& p, double hue) {
  Fill(p, {0, HorizonY, Width, Height - HorizonY}, Tinted(66, hue, 22));
  Fill(p, {0, KerbY, Width, 96}, Tarmac);
  for (int y = HorizonY; y < Height; y += 2) {
    const double near = double(y - HorizonY) / (Height - HorizonY);
    FillSpan(p, Width / 2, y, 30 + 560 * near, Tarmac);
    // Dashes of equal length on the ground: depth goes with the reciprocal of the distance from the horizon.
    const bool isDash = std::fmod(8.0 / (near + 0.12), 2.0) < 1.0;
    if (isDash && (y < KerbY || y >= KerbY + 96)) FillSpan(p, Width / 2, y, 2 + 14 * near, Marking);
  }
}

/// The car that crosses from left to right; its place is a function of wall time, so it too shows when a frame is from.
void PaintCar(const Canvas& p, std::int64_t wallNs, Yuv body) {
  const std::int64_t phaseNs = ((wallNs % CarPeriodNs) + CarPeriodNs) % CarPeriodNs;
  const int x = (static_cast<int>(phaseNs * (Width + CarLength) / CarPeriodNs) - CarLength) & ~1;
  const int y = KerbY + 20;
  Fill(p, {x + 46, y - 38, 104, 40}, body);
  Fill(p, {x + 56, y - 30, 38, 26}, Black);
  Fill(p, {x + 102, y - 30, 38, 26}, Black);
  Fill(p, {x, y, CarLength, 40}, body);
  Fill(p, {x + CarLength - 12, y + 8, 12, 12}, Lamp);
  FillDisc(p, x + 44, y + 40, 20, Black);
  FillDisc(p, x + 156, y + 40, 20, Black);
}

void PaintClock(const Canvas& p, std::int64_t wallNs) {
  const std::time_t seconds = static_cast<std::time_t>(wallNs / SecondNs);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(wallNs % SecondNs / 1'000'000));
  DrawText(p, text, ClockX, ClockY, ClockDot, White);
}

/// The background's luma with a sensor's noise. A picture without any costs an encoder next to nothing, whatever bit
/// rate it is asked for, and what is measured with it says little about a camera.
std::vector<std::uint8_t> AddGrain(const std::vector<std::uint8_t>& background, std::ptrdiff_t pixels, Dice& dice) {
  std::vector<std::uint8_t> luma(background.begin(), background.begin() + pixels);
  for (std::uint8_t& pixel : luma) {
    pixel = static_cast<std::uint8_t>(std::clamp(pixel + dice.Any(-GrainLuma, GrainLuma), 16, 235));
  }
  return luma;
}

}  // namespace

ScenePainter::ScenePainter(std::string_view name, int width, int height)
    : m_width(width),
      m_height(height),
      m_background(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3 / 2) {
  const std::uint64_t hash = HashName(name);
  const double hue = 2 * std::numbers::pi * static_cast<double>(hash >> 40) / static_cast<double>(1 << 24);
  Dice dice(hash);
  std::vector<std::uint8_t> street(Width * Height * 3 / 2);
  const Canvas canvas{PlanesOf(street.data(), Width, Height), Width, Height};
  PaintSky(canvas, hue);
  PaintSkyline(canvas, hue, dice);
  PaintRoad(canvas, hue);
  Fill(canvas,
       {ClockX - ClockMargin, ClockY - ClockMargin, ClockWidth + 2 * ClockMargin,
        GlyphRows * ClockDot + 2 * ClockMargin},
       Black);
  DrawText(canvas, name, NameX, NameY, NameDot, White);
  const I420Planes from = canvas.planes;
  const I420Planes to = PlanesOf(m_background.data(), width, height);
  libyuv::I420Scale(from.data[0], from.stride[0], from.data[1], from.stride[1], from.data[2], from.stride[2], Width,
                    Height, to.data[0], to.stride[0], to.data[1], to.stride[1], to.data[2], to.stride[2], width, height,
                    libyuv::kFilterBox);
  m_carColour = Tinted(150, hue + std::numbers::pi, 70);
  for (auto& luma : m_grainedLuma) luma = AddGrain(m_background, std::ptrdiff_t{width} * height, dice);
}

void ScenePainter::Paint(const I420Planes& picture, std::int64_t wallNs) const {
  const Canvas canvas{picture, m_width, m_height};
  if (IsFlash(wallNs)) {
    Fill(canvas, {0, 0, Width, Height}, White);
    return;
  }
  const auto& luma = m_grainedLuma[static_cast<std::size_t>(wallNs / GrainNs) % m_grainedLuma.size()];
  const std::uint8_t* const u = m_background.data() + luma.size();
  libyuv::I420Copy(luma.data(), m_width, u, m_width / 2, u + luma.size() / 4, m_width / 2, picture.data[0],
                   picture.stride[0], picture.data[1], picture.stride[1], picture.data[2], picture.stride[2], m_width,
                   m_height);
  PaintCar(canvas, wallNs, m_carColour);
  PaintClock(canvas, wallNs);
}

bool ScenePainter::IsFlash(std::int64_t wallNs) {
  return wallNs % SecondNs < FlashNs;
}

}  // namespace SoftImx
