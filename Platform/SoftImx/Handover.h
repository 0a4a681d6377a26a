// What orders our accesses between threads where GLib's own locks do so unseen by ThreadSanitizer.
#pragma once

#include <atomic>
#include <mutex>

/// Marks a function that fills in a buffer's header before the buffer is handed downstream. The receiving thread is
/// ordered behind it by GLib's locks, which are futexes of its own that ThreadSanitizer cannot see.
#define SOFTIMX_FILLS_HEADER __attribute__((no_sanitize("thread")))

namespace SoftImx {

/// An instance's state, from the thread that made the instance to any other. GObject zero-fills the field, so that it
/// is a plain pointer and not a std::atomic.
template <class State>
void PublishState(State*& field, State* state) noexcept {
  std::atomic_ref<State*>(field).store(state, std::memory_order_release);
}

template <class State>
[[nodiscard]] State* LoadState(State*& field) noexcept {
  return std::atomic_ref<State*>(field).load(std::memory_order_acquire);
}

/// Deletes an instance's state behind whoever has used it last, with its `mutex` held: the count of references, which
/// orders that, is GLib's.
template <class State>
void DiscardState(State* state) noexcept {
  { const std::lock_guard lock(state->mutex); }
  delete state;
}

}  // namespace SoftImx
