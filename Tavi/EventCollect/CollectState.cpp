// What the collecting thread, the mux thread and whoever cancels or says that power fails tell each other.
#include "Tavi/EventCollect/CollectState.h"

#include <utility>

namespace Tavi::PipelineCollect {

CollectState::Snapshot CollectState::Read() const {
  const std::lock_guard lock(m_mutex);
  return m_state;
}

bool CollectState::BeginTurn() {
  const std::lock_guard lock(m_mutex);
  if (std::exchange(m_state.collecting, true)) return false;
  ++m_state.turn;
  return true;
}

void CollectState::EndTurn() {
  const std::lock_guard lock(m_mutex);
  m_state.cancelled = false;
  m_state.powerFailure = false;
  m_state.collecting = false;
}

std::uint64_t CollectState::Cancel(const std::function<void()>& endCollectors) {
  const std::lock_guard lock(m_mutex);
  if (!m_state.collecting) return 0;
  m_state.cancelled = true;
  endCollectors();
  return m_state.turn;
}

void CollectState::FailPower(const std::function<void()>& endCollectors) {
  const std::lock_guard lock(m_mutex);
  if (m_state.muxing) m_state.muxPowerFailure = true;
  if (!m_state.collecting) return;
  m_state.powerFailure = true;
  endCollectors();
}

void CollectState::BeginMux() {
  const std::lock_guard lock(m_mutex);
  m_state.muxing = true;
  m_state.muxPowerFailure = m_state.powerFailure;
}

bool CollectState::EndMux() {
  const std::lock_guard lock(m_mutex);
  m_state.muxing = false;
  return m_state.muxPowerFailure;
}

}  // namespace Tavi::PipelineCollect
