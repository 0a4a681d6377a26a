// Appending to the ring, alone and under eight busy readers, against a circular buffer behind one mutex.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <boost/circular_buffer.hpp>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Kbase/Pipeline/IPipelineElement.h"

namespace {

using Entry = std::shared_ptr<Kbase::Pipeline::IPipelineCbElement>;

/// 32 seconds of a camera at 30 frames a second.
constexpr int RingSize = 960;
constexpr int SamplesKept = 1 << 20;

class TaviRing final : public Kbase::Pipeline::IPipelineElement {
 public:
  TaviRing() : IPipelineElement(RingSize) {}
  void Start() override {}
  void Stop() override {}
  float GetFps() override { return 30.0F; }
  void Append(const Entry& entry) { AddNext(entry); }
  Entry Newest() const { return RetrieveCurrent(); }
  Entry Back(unsigned int offset) const {
    return GetElementAt(SeekRelative(static_cast<int>(GetRingPos()), static_cast<int>(offset)));
  }
};

class MutexRing final {
 public:
  void Append(const Entry& entry) {
    const std::lock_guard lock(m_mutex);
    m_entries.push_back(entry);
  }
  Entry Newest() const {
    const std::lock_guard lock(m_mutex);
    return m_entries.back();
  }
  Entry Back(unsigned int offset) const {
    const std::lock_guard lock(m_mutex);
    return m_entries[m_entries.size() - 1 - offset];
  }

 private:
  mutable std::mutex m_mutex;
  boost::circular_buffer<Entry> m_entries{RingSize};
};

/// Threads that read as collectors do, without a pause: the newest entry, then one of the window behind it.
template <typename Ring>
class BusyReaders {
 public:
  BusyReaders(const Ring& ring, int count) {
    for (int i = 0; i < count; ++i) {
      m_threads.emplace_back([this, &ring, offset = static_cast<unsigned int>(i) * 100U] {
        while (!m_done.load(std::memory_order_relaxed)) {
          benchmark::DoNotOptimize(ring.Newest());
          benchmark::DoNotOptimize(ring.Back(offset));
        }
      });
    }
  }
  ~BusyReaders() {
    m_done = true;
    for (auto& thread : m_threads) thread.join();
  }

 private:
  std::atomic<bool> m_done{false};
  std::vector<std::thread> m_threads;
};

std::vector<Entry> MakeEntries() {
  std::vector<Entry> entries;
  for (std::uint64_t id = 0; id < 2 * RingSize; ++id) {
    entries.push_back(std::make_shared<Kbase::Pipeline::IPipelineCbElement>(id));
  }
  return entries;
}

template <typename Ring>
void Append(benchmark::State& state) {
  const std::vector<Entry> entries = MakeEntries();
  Ring ring;
  for (const auto& entry : entries) ring.Append(entry);
  const BusyReaders<Ring> readers(ring, static_cast<int>(state.range(0)));
  std::vector<std::int64_t> latencies;
  latencies.reserve(SamplesKept);
  std::size_t next = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    ring.Append(entries[next]);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    next = (next + 1) % entries.size();
    if (latencies.size() < SamplesKept) latencies.push_back(elapsed.count());
  }
  std::sort(latencies.begin(), latencies.end());
  state.counters["p50_ns"] = static_cast<double>(latencies[latencies.size() / 2]);
  state.counters["p99.9_ns"] = static_cast<double>(latencies[latencies.size() * 999 / 1000]);
}

BENCHMARK(Append<TaviRing>)->ArgName("readers")->Arg(0)->Arg(8)->MinTime(1.0)->UseRealTime();
BENCHMARK(Append<MutexRing>)->ArgName("readers")->Arg(0)->Arg(8)->MinTime(1.0)->UseRealTime();

}  // namespace
