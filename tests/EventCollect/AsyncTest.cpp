// Muxing behind the caller's back.
#include "EventCollect/ManagerFixture.h"

namespace {

using namespace Tavi::Testing;

/// Takes what it is told; holds the mux thread as long as the test wants.
class Told final : public CollectAsyncCallbackInterface {
 public:
  void CollectFinished(PipelineCollectOutput& output, bool success, void* userData) override {
    EXPECT_TRUE(success);
    {
      const std::lock_guard lock(m_mutex);
      outputs.emplace_back(output, userData);
    }
    ++calls;
    const bool held = hold.exchange(false);
    while (held && !released) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (then) std::exchange(then, {})();
  }
  std::function<void()> then;
  std::atomic<int> calls{0};
  std::atomic<bool> hold{false};
  std::atomic<bool> released{false};
  std::vector<std::pair<PipelineCollectOutput, void*>> outputs;

 private:
  std::mutex m_mutex;
};

class AsyncTest : public CollectManagerTest {};

// Catches a callback that comes twice or not at all, an event that waits for a mux, and twins overwritten under one.
TEST_F(AsyncTest, TheNextEventIsCollectedWhileTheLastOneIsMuxedAndEachIsToldOnce) {
  StartFeeding(5);
  Told told;
  told.hold = true;
  int tags[3];
  m_input.durationSeconds = 1;
  {
    PipelineCollectManager manager(m_managerConfig);
    ASSERT_TRUE(manager.CollectAsync(m_input, &told, &tags[0]));
    ASSERT_TRUE(WaitUntil([&] { return told.calls == 1; }));
    EXPECT_EQ(CountThreads("MUX-EVT"), 1);
    ASSERT_TRUE(manager.CollectAsync(m_input, &told, &tags[1])) << "while the mux thread is held";
    EXPECT_EQ(told.calls, 2) << "muxed on the caller's thread";
    told.released = true;
    ASSERT_TRUE(WaitUntil([] { return CountThreads("MUX-EVT") == 0; }));
    ASSERT_TRUE(manager.CollectAsync(m_input, &told, &tags[2]));
  }
  ASSERT_EQ(told.calls, 3) << "the destructor waits";
  std::set<std::string> files;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(told.outputs[i].second, &tags[i]);
    for (const auto& [type, path] : told.outputs[i].first.outputs) {
      files.insert(path);
      EXPECT_EQ(DecodeVideo(path).frames.size(), type == PipelineCollectType::VideoCamera1 ? Fps0 + 1U : Fps1 + 1U);
    }
  }
  EXPECT_EQ(files.size(), 6U);

  // A manager that is destroyed while the callback of its mux thread asks it for another event.
  Told again;
  auto asked = std::make_unique<PipelineCollectManager>(m_managerConfig);
  again.then = [&, manager = asked.get()] { EXPECT_TRUE(manager->CollectAsync(m_input, &again, nullptr)); };
  ASSERT_TRUE(asked->CollectAsync(m_input, &again, nullptr));
  asked.reset();
  EXPECT_EQ(again.calls, 2);
  EXPECT_EQ(again.outputs.back().first.outputs.size(), 2U);

  Told none;
  PipelineCollectManager manager(m_managerConfig);
  m_input.discard = true;
  EXPECT_TRUE(manager.CollectAsync(m_input, &none, nullptr));
  ASSERT_EQ(none.calls, 1);
  EXPECT_TRUE(none.outputs[0].first.outputs.empty());
  m_input.outputDir = "/proc/none";
  EXPECT_FALSE(manager.CollectAsync(m_input, &none, nullptr));
  EXPECT_EQ(none.calls, 1) << "nothing was started";
}

}  // namespace
