// The mean of the last values of a series.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

namespace Kbase::Util {

/// The mean of the last `size` values, kept as a running sum. Thread-safe; allocates at construction only.
///
/// The sum is T's: nothing drifts where all sums of a window are exact in T, as with native accelerations (whole
/// numbers of 1/16 to 1/64 g, 61 of them, in the 24 bits of a float). Other values leave a rounding error behind each
/// time: 8e-5 at worst after 8.64 million floats around 1.
template <class T>
class MovingAverage {
 public:
  /// `size` is at least one.
  explicit MovingAverage(std::int32_t size) : m_size(std::max(size, 1)), m_values(static_cast<std::size_t>(m_size)) {}

  /// Adds `value`, in place of the oldest one once the window is full. The mean with it.
  T Add(T value) {
    T mean[] = {value};
    AddEach(mean, 1);
    return mean[0];
  }

  /// Adds every `stride`th value of `values`, from the first one on, and puts the mean with it in its place.
  void AddEach(std::span<T> values, std::size_t stride) {
    const std::lock_guard lock(m_mutex);
    Run run{m_sum, m_count, m_next};
    for (std::size_t i = 0; i < values.size(); i += stride) values[i] = AddTo(run, values[i]);
    Keep(run);
  }

  void Clear() {
    const std::lock_guard lock(m_mutex);
    m_count = 0;
    m_sum = T{};
    m_next = 0;
  }

 private:
  /// What changes with each value, in registers while many are added.
  struct Run {
    T sum;
    std::int32_t count;
    std::size_t next;
  };

  T AddTo(Run& run, T value) {
    T& slot = m_values[run.next];
    if (run.count == m_size) {
      run.sum = (value - slot) + run.sum;
    } else {
      ++run.count;
      run.sum += value;
    }
    slot = value;
    run.next = run.next + 1 == static_cast<std::size_t>(m_size) ? 0 : run.next + 1;
    return run.sum / static_cast<T>(run.count);
  }

  void Keep(const Run& run) {
    m_sum = run.sum;
    m_count = run.count;
    m_next = run.next;
  }

  const std::int32_t m_size;
  std::int32_t m_count = 0;
  T m_sum{};
  /// A ring; m_next is the slot of the next value, which in a full window is that of the oldest.
  std::vector<T> m_values;
  std::mutex m_mutex;
  std::size_t m_next = 0;
};

}  // namespace Kbase::Util
