#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "QmconDelegate.h"
#include "QmconEvent.h"
#include "QmconException.h"
#include "QmconThreadPool.h"
#include "net_test_support.h"

namespace {

// Shared record of what the work items did.
struct Journal {
  std::mutex mutex;
  std::set<pthread_t> threads;
  std::atomic<int> started{0}, ran{0}, destroyed{0}, stopCalls{0};
};

// Records its thread; holds for `holdMs` after `release` is set (StopWork
// sets it), or for ever in a system call when `holdMs` is negative.
struct RecordingWork : QmconDelegate {
  RecordingWork(Journal* journal, int holdMs, QmconEvent* release = nullptr)
      : journal(journal), holdMs(holdMs), release(release) {}
  ~RecordingWork() override { ++journal->destroyed; }
  void DoWork(void*) override {
    std::lock_guard<std::mutex>{journal->mutex}, journal->threads.insert(pthread_self());
    ++journal->started;
    while (holdMs < 0) pause();
    if (release != nullptr) release->Wait(5000);
    std::this_thread::sleep_for(std::chrono::milliseconds(holdMs));
    ++journal->ran;
  }
  void StopWork() override {
    ++journal->stopCalls;
    if (release != nullptr) release->Broadcast();
  }
  Journal* journal;
  int holdMs;
  QmconEvent* release;
};

TEST(ThreadPoolTest, OneWorkerRunsItemsInTurnRetiresWhenIdleAndStops) {
  Journal journal;
  QmconThreadPool pool;
  pool.Initialize(1);
  pool.SetIdleTimeout(150);
  unsigned long first = 0, second = 0;
  pool.AddWork(new RecordingWork(&journal, 100), first);
  pool.AddWork(new RecordingWork(&journal, 100), second);
  EXPECT_NE(0UL, first);
  EXPECT_EQ(0UL, second);  // no second worker beyond the maximum
  EXPECT_TRUE(pool.IsThreadRunning(first));
  ASSERT_TRUE(WaitUntil([&] { return pool.WorkerCount() == 0; }, 5000));  // idle: retired
  EXPECT_EQ(2, journal.ran.load());
  EXPECT_EQ(1u, journal.threads.size());
  EXPECT_FALSE(pool.IsThreadRunning(first));
  pool.AddWork(new RecordingWork(&journal, 0), second);  // a new worker is made
  EXPECT_NE(0UL, second);
  EXPECT_TRUE(WaitUntil([&] { return journal.ran == 3; }, 5000));

  pool.Stop(100);
  RecordingWork late(&journal, 0);
  EXPECT_EQ("Thread Pool Is Stopping", Thrown<QmconException>([&] { pool.AddWork(&late); }));
  EXPECT_EQ(0u, pool.WorkerCount());
  EXPECT_EQ(3, journal.ran.load());
}

TEST(ThreadPoolTest, TaskControlAndDestructionWhileAWorkerFinishes) {
  Journal journal;
  QmconEvent release(true);
  {
    QmconThreadPool pool;
    pool.Initialize(2);
    pool.AddWork(new RecordingWork(&journal, 100, &release));
    ASSERT_TRUE(WaitUntil([&] { return journal.started == 1; }, 5000));
    EXPECT_EQ(1u, pool.RunningSize());
    RecordingWork stranger(&journal, 0);
    pool.StopTask(&stranger);  // not the pool's: left alone
    EXPECT_EQ(0, journal.stopCalls.load());
    pool.StopTasks();
    EXPECT_EQ(1, journal.stopCalls.load());
  }  // the item is still sleeping its 100 ms when the pool goes
  ASSERT_TRUE(WaitUntil([&] { return journal.destroyed == 2; }, 5000));
  EXPECT_EQ(1, journal.ran.load());
}

TEST(ThreadPoolTest, StopDropsQueuedItemsAndEndsAStuckWorker) {
  QM_SKIP_UNDER_RACE_CHECKER();
  Journal journal;
  QmconThreadPool pool;
  pool.Initialize(1);
  pool.AddWork(new RecordingWork(&journal, -1));
  ASSERT_TRUE(WaitUntil([&] { return journal.started == 1; }, 5000));
  auto* queued = new RecordingWork(&journal, 0);
  pool.AddWork(queued);
  pool.AddWork(new RecordingWork(&journal, 0));
  EXPECT_TRUE(pool.DeleteTask(queued));
  EXPECT_FALSE(pool.DeleteTask(queued));

  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(pool.Stop(300));
  EXPECT_LT(ElapsedMs(start), 3000);
  // The stuck item goes with its worker's unwinding after the kill.
  ASSERT_TRUE(WaitUntil([&] { return journal.destroyed == 3 && pool.WorkerCount() == 0; }, 5000));
  EXPECT_EQ(0, journal.ran.load());
  EXPECT_EQ(0u, pool.RunningSize());
}

}  // namespace
