#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "QmconEvent.h"
#include "QmconFunctions.h"
#include "QmconThread.h"

namespace {

class ThreadTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { QmconThread::InitializeLibrary(); }
};

// Counts its runs and, unless made with spin = false, spins until told to stop, counting
// iterations; reports its own deletion when given an event for it.
class Work : public QmconDelegate {
 public:
  explicit Work(bool spin = true, QmconEvent* deleted = nullptr)
      : stop(!spin), m_deleted(deleted) {}
  ~Work() override {
    if (m_deleted) m_deleted->Broadcast();
  }
  void DoWork(void*) override {
    ++runs;
    started.Broadcast();
    while (!stop) {
      ++ticks;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  std::atomic<bool> stop;
  std::atomic<int> runs{0};
  std::atomic<long> ticks{0};
  QmconEvent started{true};

 private:
  QmconEvent* m_deleted;
};

TEST_F(ThreadTest, RunsOneDelegateAtATimeThenBecomesIdle) {
  QmconThread thread;
  Work first, second(false);
  thread.Run(&first);
  ASSERT_EQ(first.started.Wait(5000), QmconEvent::SIGNALLED);
  thread.Run(&second);  // busy: starts nothing
  first.stop = true;
  thread.WaitForThreadObject(5000);
  EXPECT_EQ(second.runs.load(), 0);
  EXPECT_EQ(thread.GetThreadID(), QmconThread::kNoThread);
  thread.Run(&second);
  ASSERT_EQ(second.started.Wait(5000), QmconEvent::SIGNALLED);
  thread.WaitForThreadObject(5000);
  EXPECT_EQ(second.runs.load(), 1);
}

TEST_F(ThreadTest, AutoCleanDeletesThreadAndDelegate) {
  QmconEvent deleted(true);
  auto* thread = new QmconThread();
  thread->SetAutoClean(true);
  thread->Run(new Work(false, &deleted));
  EXPECT_EQ(deleted.Wait(5000), QmconEvent::SIGNALLED);
}

TEST_F(ThreadTest, SuspendStopsProgressUntilSigusr2) {
  QmconThread thread;
  Work work;
  thread.Run(&work);
  ASSERT_EQ(work.started.Wait(5000), QmconEvent::SIGNALLED);
  thread.Stop();
  const long atSuspend = work.ticks.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_LE(work.ticks.load(), atSuspend + 1);
  ASSERT_EQ(pthread_kill(thread.GetThreadID(), SIGUSR2), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (work.ticks.load() <= atSuspend + 1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_GT(work.ticks.load(), atSuspend + 1);
  work.stop = true;
  thread.WaitForThreadObject(5000);
}

TEST_F(ThreadTest, KillEndsTheThreadNotTheProcess) {
  QmconThread thread;
  Work work;
  thread.Run(&work);
  ASSERT_EQ(work.started.Wait(5000), QmconEvent::SIGNALLED);
  // Kill only once the thread is in its loop: a thread ended inside a call
  // that must not throw (here, the event's broadcast) aborts the process.
  while (work.ticks.load() < 2) std::this_thread::yield();
  thread.Kill();
  EXPECT_EQ(thread.GetThreadID(), QmconThread::kNoThread);
  const long atKill = work.ticks.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_LE(work.ticks.load(), atKill + 1);
}

TEST_F(ThreadTest, WaitForThreadObjectPollsUntilEndWhenCountIsNotAMultiple) {
  QmconThread thread;
  Work work;
  thread.Run(&work);
  ASSERT_EQ(work.started.Wait(5000), QmconEvent::SIGNALLED);
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    work.stop = true;
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(thread.WaitForThreadObject(100), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_FALSE(thread.IsRunning());
  stopper.join();
}

}  // namespace
