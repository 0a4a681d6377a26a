// The ring that every source keeps its recent history in.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Kbase/Pipeline/IPipelineCbElement.h"

namespace Kbase::Pipeline {

/// A fixed-size ring of shared entries, and the base of every source element.
///
/// One producer thread appends, any number of threads read, all at once. Each slot has a lock of its own that is held
/// for one pointer copy; the producer writes the slot that is oldest and readers of recent entries never meet it there.
/// The entry that a slot held is released after its lock. Operations on indexes accept any number and wrap it.
class IPipelineElement {
 public:
  using Entry = std::shared_ptr<IPipelineCbElement>;

  /// What GetCurrentFrameId returns before the first entry; adding one gives the first entry's id.
  static constexpr std::uint64_t NoFrameId = ~std::uint64_t{0};

  /// `ringSize` entries are kept, at least one.
  explicit IPipelineElement(int ringSize);
  virtual ~IPipelineElement();

  virtual void Start() = 0;
  virtual void Stop() = 0;
  /// Entries per second that this source produces.
  [[nodiscard]] virtual float GetFps() = 0;

  /// Appends `entry` after the current one. Only the producer's thread calls it. Never allocates.
  void AddNext(const Entry& entry);

  /// The entry added last, null before the first.
  [[nodiscard]] Entry RetrieveCurrent() const;
  [[nodiscard]] std::uint64_t GetCurrentFrameId() const;
  /// Ring index of the current entry. Before the first one it is the last slot, so that the first entry lands in slot
  /// 0.
  [[nodiscard]] unsigned int GetRingPos() const;
  [[nodiscard]] unsigned int GetRingSize() const { return m_size; }
  /// The entry at `index` modulo the ring size, null when that slot was never written.
  [[nodiscard]] Entry GetElementAt(unsigned int index) const;
  /// The ring index `offset` entries older than `pos` (a negative offset goes forward in time).
  [[nodiscard]] unsigned int SeekRelative(int pos, int offset) const;

  /// The ring index at which a read of the last `count` entries starts: `count` entries before the current one, then
  /// back to an entry at which a decoder can start. Where the ring does not reach that far, or holds no such entry
  /// there, the oldest one it has. `rate` is the number of entries between two key frames, 1 for a stream without them:
  /// then nothing is moved. The slot that the producer overwrites next is never returned unless it is the only one.
  [[nodiscard]] unsigned int SeekBackKeyframe(int count, int rate) const;

  [[nodiscard]] bool IsDataAvailable() const;

  IPipelineElement(const IPipelineElement&) = delete;
  IPipelineElement& operator=(const IPipelineElement&) = delete;

 private:
  struct Slot;

  [[nodiscard]] bool IsKeyFrameAt(unsigned int pos) const;

  const unsigned int m_size;
  std::vector<Slot> m_slots;
  /// Slot of the current entry, the last one before the first entry. Counted beside m_added, and written before it: a
  /// division of 64 bits for each entry is dear on a processor of 32.
  std::atomic<unsigned int> m_current;
  /// Entries added so far.
  std::atomic<std::uint64_t> m_added{0};
  /// Of the newest entry, so that nobody takes a share in that to know it; written last.
  std::atomic<std::uint64_t> m_newestId{NoFrameId};
};

}  // namespace Kbase::Pipeline
