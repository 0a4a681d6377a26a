// The drive that all simulated devices of the car report.
#include "Simulator/Drive.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <numbers>

namespace Tavi::Simulator {
namespace {

/// A piece of road: got up to speed, driven along, braked at its end. Then comes the bend, if any, and the wait.
struct Street {
  double metres;
  double cruiseMps;
  double endMps;
  double brakeMps2;
  bool endsInBend;
  double waitSeconds;
};

constexpr double AccelerationMps2 = 2.3;
constexpr double BrakingMps2 = 3.0;
constexpr double EmergencyMps2 = 8.3;
/// How long a foot takes to press or release a pedal.
constexpr double PedalSeconds = 0.25;
/// All bends are quarter circles to the right.
constexpr double BendRadius = 30;
constexpr double BendMps = 9.5;
constexpr double BendMetres = BendRadius * std::numbers::pi / 2;

// Clockwise round a rectangle of 710 x 310 m, from the traffic light on its west side on to the north. The straights of
// opposite sides add up to the same, which closes the loop.
constexpr Street Streets[] = {{290, 17, 5, EmergencyMps2, false, 0},  // a child on the road
                              {310, 22, BendMps, BrakingMps2, true, 0}, {250, 18, BendMps, BrakingMps2, true, 0},
                              {250, 20, 0, BrakingMps2, false, 4},  // a level crossing
                              {400, 24, BendMps, BrakingMps2, true, 0}, {250, 18, BendMps, BrakingMps2, true, 0},
                              {50, BendMps, 0, BrakingMps2, false, 5}};  // the traffic light

// The south-west corner of the rectangle, and the curvature of the WGS84 ellipsoid there.
constexpr double OriginLatitude = 48.1173;
constexpr double OriginLongitude = 11.5167;
constexpr double SemiMajorAxis = 6'378'137.0;
constexpr double EccentricitySquared = 0.00669437999014;

double ToRadians(double degrees) {
  return degrees * std::numbers::pi / 180;
}

double ToDegrees(double radians) {
  return radians * 180 / std::numbers::pi;
}

/// Of a block of houses' size the ellipsoid is flat.
void SetPosition(DriveState& state, double east, double north) {
  const double sine = std::sin(ToRadians(OriginLatitude));
  const double flattening = 1 - EccentricitySquared * sine * sine;
  const double primeVertical = SemiMajorAxis / std::sqrt(flattening);
  const double meridian = primeVertical * (1 - EccentricitySquared) / flattening;
  state.latitude = OriginLatitude + ToDegrees(north / meridian);
  state.longitude = OriginLongitude + ToDegrees(east / (primeVertical * std::cos(ToRadians(OriginLatitude))));
}

/// The last of `pieces` that begins at or before `value`.
template <class Piece>
const Piece& FindPiece(const std::vector<Piece>& pieces, double Piece::*begin, double value) {
  const auto after = std::upper_bound(pieces.begin(), pieces.end(), value,
                                      [begin](double wanted, const Piece& piece) { return wanted < piece.*begin; });
  return after == pieces.begin() ? *after : *(after - 1);
}

/// How far a change of speed takes: its acceleration rises and falls evenly, so that its mean speed is the middle one.
double MetresToChange(double from, double to, double rate) {
  const double change = std::abs(to - from);
  return (from + to) / 2 * (change / rate + std::min(PedalSeconds, change / rate));
}

}  // namespace

Drive::Drive() : m_motions{{0, 0, 0, 0, 0}}, m_courses{{0, 0, BendRadius, 0, 0}} {
  for (const Street& street : Streets) {
    const double begin = m_motions.back().speed;
    const double cruiseMetres = street.metres - MetresToChange(begin, street.cruiseMps, AccelerationMps2) -
                                MetresToChange(street.cruiseMps, street.endMps, street.brakeMps2);
    assert(cruiseMetres >= 0 && "a street too short for its speed");
    ChangeSpeed(street.cruiseMps, AccelerationMps2);
    AddMotion(cruiseMetres / street.cruiseMps, 0, 0);
    ChangeSpeed(street.endMps, street.brakeMps2);
    AddCourse(street.metres, 0);
    if (street.endsInBend) {
      AddMotion(BendMetres / BendMps, 0, 0);
      AddCourse(BendMetres, 1 / BendRadius);
    }
    AddMotion(street.waitSeconds, 0, 0);
  }
  m_lapSeconds = m_motions.back().time;
  m_lapMetres = m_courses.back().way;
}

/// Ends the last piece after `seconds` of the given motion and begins the next one there.
void Drive::AddMotion(double seconds, double acceleration, double jerk) {
  if (seconds <= 0) return;
  Motion& last = m_motions.back();
  last.acceleration = acceleration;
  last.jerk = jerk;
  const double t = seconds;
  const double way = last.way + t * (last.speed + t * (acceleration / 2 + t * jerk / 6));
  const double speed = last.speed + t * (acceleration + t * jerk / 2);
  m_motions.push_back({last.time + t, way, std::abs(speed) < 1e-9 ? 0 : speed, 0, 0});
}

/// A trapezium of acceleration: the pedal is pressed, held and released. A small change never reaches `rate`'s plateau.
void Drive::ChangeSpeed(double speed, double rate) {
  const double change = speed - m_motions.back().speed;
  const double held = std::abs(change) / rate;
  const double pedal = std::min(PedalSeconds, held);
  if (pedal <= 0) return;
  const double acceleration = std::copysign(rate, change);
  AddMotion(pedal, 0, acceleration / pedal);
  AddMotion(held - pedal, acceleration, 0);
  AddMotion(pedal, acceleration, -acceleration / pedal);
}

void Drive::AddCourse(double metres, double curvature) {
  Course& last = m_courses.back();
  last.curvature = curvature;
  const double turn = metres * curvature;
  // Along the chord of the arc, whose direction is the mean one.
  const double chord = turn == 0 ? metres : 2 / curvature * std::sin(turn / 2);
  const double direction = last.heading + turn / 2;
  m_courses.push_back({last.way + metres, last.east + chord * std::sin(direction),
                       last.north + chord * std::cos(direction), last.heading + turn, 0});
}

DriveState Drive::At(double seconds) const {
  double time = std::fmod(seconds, m_lapSeconds);
  if (time < 0) time += m_lapSeconds;
  const Motion& motion = FindPiece(m_motions, &Motion::time, time);
  const double t = time - motion.time;
  const double way = motion.way + t * (motion.speed + t * (motion.acceleration / 2 + t * motion.jerk / 6));
  const Course& course = FindPiece(m_courses, &Course::way, way);
  const double turn = (way - course.way) * course.curvature;
  const double chord = turn == 0 ? way - course.way : 2 / course.curvature * std::sin(turn / 2);
  const double direction = course.heading + turn / 2;

  DriveState state{};
  SetPosition(state, course.east + chord * std::sin(direction), course.north + chord * std::cos(direction));
  state.speedMps = std::max(0.0, motion.speed + t * (motion.acceleration + t * motion.jerk / 2));
  state.courseDegrees = std::fmod(ToDegrees(course.heading + turn), 360);
  state.longitudinalMps2 = motion.acceleration + t * motion.jerk;
  state.lateralMps2 = state.speedMps * state.speedMps * course.curvature;
  return state;
}

}  // namespace Tavi::Simulator
