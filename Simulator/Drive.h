// The drive that all simulated devices of the car report.
#pragma once

#include <vector>

namespace Tavi::Simulator {

/// The car at one moment.
struct DriveState {
  /// WGS84, degrees, north and east positive.
  double latitude;
  double longitude;
  double speedMps;
  /// Clockwise from north, [0, 360).
  double courseDegrees;
  /// Along the car, m/s^2: positive when it gets faster.
  double longitudinalMps2;
  /// Across the car, m/s^2: positive when it is drawn to the right, as in a right turn.
  double lateralMps2;
};

/// Laps round a block of country roads, 2 km in a good two minutes: two stops, four bends, ordinary braking
/// before each, and one emergency braking a lap about 20 s after its start.
///
/// Made from a table of streets, which becomes pieces of constant jerk on the one hand (speed and way over time) and
/// straights and arcs on the other (position and course over the way), both with their integrals: speed is exactly the
/// derivative of the way and acceleration that of the speed, and a lap ends where and as it began. Immutable after
/// construction, so reentrant.
class Drive {
 public:
  Drive();

  /// The car `seconds` after its departure; laps repeat without end, before the departure too. Logarithmic in the
  /// number of pieces.
  [[nodiscard]] DriveState At(double seconds) const;
  [[nodiscard]] double LapSeconds() const { return m_lapSeconds; }
  [[nodiscard]] double LapMetres() const { return m_lapMetres; }

 private:
  /// Constant jerk from `time` to the next piece.
  struct Motion {
    double time;
    double way;
    double speed;
    double acceleration;
    double jerk;
  };
  /// Constant curvature from `way` to the next piece.
  struct Course {
    double way;
    double east;
    double north;
    /// Radians, clockwise from north.
    double heading;
    /// 1 / radius, positive to the right; 0 on a straight.
    double curvature;
  };

  void AddMotion(double seconds, double acceleration, double jerk);
  void ChangeSpeed(double speed, double rate);
  void AddCourse(double metres, double curvature);

  std::vector<Motion> m_motions;
  std::vector<Course> m_courses;
  double m_lapSeconds = 0;
  double m_lapMetres = 0;
};

}  // namespace Tavi::Simulator
