// What the collecting thread, the mux thread and whoever cancels or says that power fails tell each other.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

namespace Tavi::PipelineCollect {

/// One record under one mutex. Thread-safe.
class CollectState {
 public:
  struct Snapshot {
    /// Counts the collects, so that who waits for one does not wait for the next.
    std::uint64_t turn = 0;
    bool collecting = false;
    bool cancelled = false;
    bool powerFailure = false;
    /// The mux thread works; it is to save its event when it is done.
    bool muxing = false;
    bool muxPowerFailure = false;
  };

  [[nodiscard]] Snapshot Read() const;
  /// A collect begins; false when one is under way.
  bool BeginTurn();
  /// It has ended, and nothing that was asked of it is left behind.
  void EndTurn();
  /// The collect under way is to end: calls `endCollectors` with the mutex held, so that what is meant for one event
  /// never reaches the next, and gives its number. 0 when there is none.
  std::uint64_t Cancel(const std::function<void()>& endCollectors);
  /// The same for power that fails; a mux under way is told as well.
  void FailPower(const std::function<void()>& endCollectors);
  /// From here on power that fails reaches the event through the mux thread.
  void BeginMux();
  /// Ends the mux thread's turn: what fails from here on finds the event delivered. True when it is to be saved.
  [[nodiscard]] bool EndMux();

 private:
  mutable std::mutex m_mutex;
  Snapshot m_state;
};

/// One collect's time: nobody else's meanwhile.
class CollectTurn {
 public:
  explicit CollectTurn(CollectState& state) : m_state(state), m_taken(state.BeginTurn()) {}
  ~CollectTurn() {
    if (m_taken) m_state.EndTurn();
  }
  [[nodiscard]] bool IsTaken() const { return m_taken; }

  CollectTurn(const CollectTurn&) = delete;
  CollectTurn& operator=(const CollectTurn&) = delete;

 private:
  CollectState& m_state;
  const bool m_taken;
};

}  // namespace Tavi::PipelineCollect
