// The thread class: ends by itself, by cancel, by abort, and starts again.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <new>
#include <stdexcept>
#include <thread>

#include "Kbase/Interfaces/IThread.h"
#include "Support/Fixtures.h"

namespace {

using Kbase::Interfaces::IThread;
using Tavi::Testing::WaitUntil;
using namespace std::chrono_literals;

/// Counts what is called; `work` is its Run.
class Worker : public IThread {
 public:
  explicit Worker(std::function<void(Worker&)> work, OnFailure onFailure = OnFailure::EndThread)
      : IThread("WORKER", onFailure), m_work(std::move(work)) {}
  ~Worker() override { Stop(); }
  using IThread::WaitForCancel;
  using IThread::Wake;
  std::atomic<int> before{0}, runs{0}, after{0}, stopping{0};

 protected:
  void RunBefore() override { ++before; }
  void Run() override {
    ++runs;
    m_work(*this);
  }
  void RunAfter() override { ++after; }
  void Stopping() override { ++stopping; }

 private:
  const std::function<void(Worker&)> m_work;
};

TEST(Thread, RunsOnceWhenItCancelsItselfAndCanStartAgain) {
  Worker worker([](Worker& self) { self.Cancel(); });
  for (int round = 1; round <= 3; ++round) {
    ASSERT_TRUE(worker.Start());
    ASSERT_TRUE(WaitUntil([&] { return !worker.IsRunning(); }));
    EXPECT_EQ(worker.runs, round);
    EXPECT_EQ(worker.before, round);
    EXPECT_EQ(worker.after, round);
  }
}

TEST(Thread, WakeAndCancelEndALongWaitAtOnce) {
  Worker worker([](Worker& self) { self.WaitForCancel(1h); });
  ASSERT_TRUE(worker.Start());
  EXPECT_FALSE(worker.Start()) << "it runs already";
  ASSERT_TRUE(WaitUntil([&] { return worker.runs == 1; }));
  worker.Wake();
  ASSERT_TRUE(WaitUntil([&] { return worker.runs == 2; }));
  EXPECT_TRUE(worker.Abort(10s));
  EXPECT_EQ(worker.stopping, 1);
  EXPECT_EQ(worker.after, 1);
}

TEST(Thread, AbortGivesUpOnAThreadThatDoesNotListen) {
  std::atomic<bool> release{false};
  Worker worker([&](Worker&) {
    while (!release) std::this_thread::yield();
  });
  ASSERT_TRUE(worker.Start());
  ASSERT_TRUE(WaitUntil([&] { return worker.runs == 1; }));
  EXPECT_FALSE(worker.Abort(30ms));
  EXPECT_TRUE(worker.IsRunning());
  release = true;
  EXPECT_TRUE(worker.Abort(10s));
}

TEST(Thread, AnExceptionInItsBodyEndsTheThreadOnly) {
  Worker worker([](Worker&) { throw std::runtime_error("disk on fire"); });
  ASSERT_TRUE(worker.Start());
  ASSERT_TRUE(WaitUntil([&] { return !worker.IsRunning(); }));
  EXPECT_EQ(worker.after, 0);
}

class ThreadLogTest : public Tavi::Testing::TempDirTest {};

TEST_F(ThreadLogTest, OneThatServesGoesOnAfterAPassThatFailedButNotAtOnceAndSaysSoOnce) {
  Worker worker([](Worker&) { throw std::bad_alloc(); }, IThread::OnFailure::GoOn);
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(worker.Start());
  ASSERT_TRUE(WaitUntil([&] { return worker.runs == 3; }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 100ms);
  EXPECT_TRUE(worker.Abort(10s));
  EXPECT_EQ(worker.after, 1);
  EXPECT_EQ(CountLogged("the thread WORKER failed and goes on: out of memory"), 1) << GetLog();
}

}  // namespace
