// What a running event's files hold, copied to where it survives before power fails.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Tavi/EventCollect/CollectorSet.h"
#include "Tavi/EventCollect/CopyAheadFile.h"

namespace Tavi::PipelineCollect {

/// The copies of one event, under names that the recovery takes for what they are at each instant: ".part" until the
/// event is saved whole. They go when the event has come to its end elsewhere.
///
/// Made by the collecting thread before its collectors start, served by CopyAheadThread, and ended by whoever is first:
/// Save by the thread that saves the event, Drop by any. Borrows nothing.
class CopyAhead {
 public:
  /// `name` is what the copies share, without a length that nobody knows yet. The collectors are armed.
  CopyAhead(const CollectorMap& collectors, std::string dir, std::string name);

  /// The collectors have ended, and all that their files will ever hold is in them. Thread-safe.
  void SetFinal() { m_isFinal = true; }
  /// The copies are not needed any more: they are removed by the thread that serves them. Thread-safe.
  void Drop();

  /// Saves the event: writes what the copies lack, small files first, syncs and names them. What could not be saved
  /// whole keeps its aside name. True when all of it is safe; empty, and nothing is done, when there are no copies: the
  /// disk was full, say.
  [[nodiscard]] std::optional<bool> Save(const CollectorMap& collectors);

  /// Copying is the state of an event that may still be saved.
  [[nodiscard]] bool IsOver() const { return m_state != State::Copying; }
  /// Copies up to a block of each file that has something, and sleeps `pause` behind each one. Bytes copied. Called by
  /// the thread that copies, as is what follows.
  template <class Pause>
  std::size_t Step(std::vector<char>& block, const Pause& pause) {
    std::size_t copied = 0;
    for (const Item& item : m_items) {
      if (IsOver() || m_isComplete) break;
      const std::size_t bytes = StepFile(*item.file, block);
      if (bytes != 0) pause(bytes);
      copied += bytes;
    }
    if (!IsOver() && !m_isComplete) SyncNow(copied != 0);
    return copied;
  }
  /// Ends an event that is over: removes the copies unless they are saved.
  void Clear() const;
  /// Why there are no copies of this event; empty while there are, and when nobody needs them.
  [[nodiscard]] const std::string& GetProblem() const { return m_problem; }

 private:
  /// Left: copying ahead was given up.
  enum class State { Copying, Saved, Dropped, Left };
  using Clock = std::chrono::steady_clock;
  /// A collector's file, or its companion.
  struct Item {
    PipelineCollectType type;
    /// Path of the collector's file while it is collected.
    std::string collected;
    std::unique_ptr<CopyAheadFile> file;
  };

  void Add(const CollectBase& collector, const std::string& suffix);
  std::size_t StepFile(CopyAheadFile& file, std::vector<char>& block);
  void SyncNow(bool hasCopied);
  void Leave(const std::string& action, const std::string& path);
  bool End(State state);
  [[nodiscard]] std::vector<CopyAheadFile*> Choose(const CollectorMap& collectors);
  [[nodiscard]] bool SaveFiles(std::vector<CopyAheadFile*> files) const;

  const std::string m_dir;
  const std::string m_name;
  /// The same ones from construction on.
  std::vector<Item> m_items;
  /// What Save finds beside them: clips in the place of streams that were never copied.
  std::vector<std::unique_ptr<CopyAheadFile>> m_late;
  std::atomic<State> m_state{State::Copying};
  std::atomic<bool> m_isFinal{false};
  /// The rest belongs to the thread that copies.
  std::string m_problem;
  Clock::time_point m_syncedAt = Clock::now();
  std::chrono::milliseconds m_syncPeriod;
  bool m_hasNewNames = false;
  bool m_isComplete = false;
};

}  // namespace Tavi::PipelineCollect
