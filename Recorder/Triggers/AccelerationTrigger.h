// Finds hits and hard braking in the accelerometer's samples.
#pragma once

#include <array>
#include <functional>

#include "Tavi/Accel/AccDataPak.h"

namespace Tavi::Recorder::Triggers {

/// Fires when the vehicle's own acceleration stays above a threshold for a time.
///
/// Gravity is what the axes show on average: learnt in the first second and followed slowly from then on, so that the
/// unit may be mounted in any way. Samples are means over 0.61 s (see AccDataPak), so the threshold is in effect a
/// change of speed within that time: 3 m/s at 0.5 g, whether from hard braking or from a blow of 100 ms. Time is
/// counted in samples. Thread-bound; the callback is called by Feed.
class AccelerationTrigger {
 public:
  struct Settings {
    double thresholdG = 0.5;
    /// How long without a break, in milliseconds.
    int holdMs = 100;
    /// From one firing to the next at least, in seconds.
    int rearmSeconds = 30;
  };

  struct Firing {
    /// The highest acceleration so far.
    double peakG = 0.0;
    /// How long it has been above the threshold, in milliseconds.
    int durationMs = 0;
  };
  using Callback = std::function<void(const Firing&)>;

  AccelerationTrigger(const Settings& settings, Callback callback);

  /// The next block; `sampleSeconds` from one of its samples to the next.
  void Feed(const Accel::AccDataPak& block, double sampleSeconds);
  /// What is fed next does not follow on what was fed before: gravity is learnt anew.
  void Restart();
  /// Forgets the last firing: the next one need not wait, only the value has to fall first.
  void Rearm();

 private:
  /// In g, by axis.
  using Vector = std::array<double, 3>;

  void Take(const Vector& sample, double seconds);
  void LearnRest(const Vector& sample, double seconds);
  void FollowRest(const Vector& sample, double g, double seconds);
  void Judge(double g, double seconds);

  const Settings m_settings;
  const Callback m_callback;
  /// What the axes show at rest: gravity.
  Vector m_rest{};
  double m_learntSeconds = 0.0;
  /// How long the samples have been far from rest.
  double m_awaySeconds = 0.0;
  double m_overSeconds = 0.0;
  double m_peakG = 0.0;
  double m_secondsSinceFiring = 0.0;
  /// Since the last firing.
  bool m_hasFallen = true;
};

}  // namespace Tavi::Recorder::Triggers
