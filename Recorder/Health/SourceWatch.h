// Follows the health of one source from sample to sample.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Kbase/Klog/Logger.h"
#include "Kbase/Pipeline/IPipelineElement.h"
#include "Recorder/Health/SourceHealth.h"

namespace Tavi::Recorder {

/// Draws its conclusions from the newest entry alone: its id, its age, its time stamp. Neither reads a clock nor logs.
/// Thread-bound.
class SourceWatch {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using Ring = std::shared_ptr<Kbase::Pipeline::IPipelineElement>;
  using Entry = Kbase::Pipeline::IPipelineElement::Entry;

  /// For the log.
  struct Notice {
    Kbase::Klog::Level level;
    std::string text;
  };

  explicit SourceWatch(Pipeline::PipelineType type) { m_health.type = type; }

  /// One sample: `ring` is null without an acquisition, `newest` null before the first entry, `rate` what the source is
  /// configured for (0 when unknown: nothing is missed then, and no silence noticed).
  [[nodiscard]] std::optional<Notice> Observe(const Ring& ring, const Entry& newest, double rate, Milliseconds now);
  /// What a device has counted since its ring was made; told after Observe, without a ring not at all.
  void NoteDevice(std::uint64_t busErrors, std::uint64_t overflows);
  void NoteRevivals(std::uint64_t revivals);
  /// What keeps it from delivering; empty when nothing is known.
  void NoteProblem(const std::string& problem);
  /// As of the last sample.
  [[nodiscard]] const SourceHealth& GetHealth() const { return m_health; }
  /// False for a source that no acquisition has had so far.
  [[nodiscard]] bool WasThere() const { return m_wasThere; }

 private:
  struct Moment {
    /// When the entry came.
    Milliseconds arrival{0};
    /// Its time stamp, where that tells more than the entries' number does.
    std::optional<std::chrono::nanoseconds> media;
  };
  struct Point {
    Milliseconds sampled{0};
    Milliseconds arrival{0};
    std::uint64_t entries = 0;
  };

  void Stop();
  void BeginAnew();
  /// How many entries are new.
  std::uint64_t Take(const Entry& newest, Milliseconds now);
  [[nodiscard]] Moment GetMoment(const Kbase::Pipeline::IPipelineCbElement& entry, Milliseconds now) const;
  void CountMissed(std::uint64_t delivered, const Moment& moment);
  void AddPoint(Milliseconds now);
  [[nodiscard]] double MeasureRate() const;
  [[nodiscard]] std::optional<Notice> JudgeSilence(std::uint64_t delivered, Milliseconds now);
  [[nodiscard]] Notice ReportReturn(std::uint64_t delivered);

  SourceHealth m_health;
  std::weak_ptr<Kbase::Pipeline::IPipelineElement> m_ring;
  bool m_wasThere = false;
  /// What the present ring's device has told.
  std::uint64_t m_busErrors = 0;
  std::uint64_t m_overflows = 0;
  std::uint64_t m_revivals = 0;
  /// Empty until the present ring has delivered.
  std::optional<std::uint64_t> m_newestId;
  /// When it was first waited for.
  std::optional<Milliseconds> m_startedAt;
  Moment m_newest;
  /// Entries that were missing at the last sample.
  std::int64_t m_owed = 0;
  /// When the last entry before a silence came that the log was told about.
  std::optional<Milliseconds> m_silentSince;
  std::array<Point, 6> m_points{};
  std::size_t m_pointCount = 0;
};

}  // namespace Tavi::Recorder
