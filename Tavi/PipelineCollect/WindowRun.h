// One run of a ring's collector through its window.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "Tavi/PipelineCollect/CollectFile.h"
#include "Tavi/PipelineCollect/EntryClock.h"
#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace Tavi::PipelineCollect {

/// Follows the ring, writes what belongs to the window at the pace that is asked for, notes when it was, and knows when
/// the window is complete. Lives for one collect, on the collector's thread.
class PipelineCollect::WindowRun {
 public:
  /// `startId` is that of the ring's newest entry at the start, NoFrameId for an empty ring.
  WindowRun(PipelineCollect& collect, CollectFile& file, std::uint64_t startId);

  /// Writes the window and leaves what is known of it in the collector.
  void Write();

 private:
  using Entry = Kbase::Pipeline::IPipelineElement::Entry;
  using Ring = Kbase::Pipeline::IPipelineElement;
  using TimePoint = EntryClock::TimePoint;

  void Begin();
  bool Step();
  bool WritePending(std::uint64_t limit);
  bool WriteEntry(const Entry& entry);
  void WriteLast();
  void WriteWhatIsSaved();
  void Note(const Kbase::Pipeline::IPipelineCbElement* entry);
  void ReportWindow();
  [[nodiscard]] std::uint64_t GetAllowance(const Entry& newest) const;
  [[nodiscard]] bool IsComplete(const Entry& entry) const;
  [[nodiscard]] bool EndsInSilence(const Entry& newest);
  [[nodiscard]] TimePoint GetWindowStart() const;
  [[nodiscard]] double ToSeconds(TimePoint time) const;

  PipelineCollect& m_collect;
  CollectFile& m_file;
  std::optional<CollectFile> m_times;
  const WindowCare m_care;
  const TimePoint m_begunAt = std::chrono::steady_clock::now();
  /// What the window is relative to.
  const TimePoint m_moment;
  const std::chrono::milliseconds m_period;
  const std::chrono::milliseconds m_silenceLimit;
  const std::uint64_t m_startId;
  RingReader m_reader;
  EntryClock m_clock;
  /// Offset of the next entry in the window, and of the last one that its length makes.
  std::uint64_t m_index = 0;
  const std::uint64_t m_last;
  std::uint64_t m_wakes = 0;
  /// How old the newest entry was when the collect began.
  std::chrono::milliseconds m_silentBefore{0};
  /// An entry could not be written.
  bool m_isFull = false;
  Entry m_firstEntry;
  Entry m_lastEntry;
};

}  // namespace Tavi::PipelineCollect
