#include <signal.h>

#include <atomic>

#include "QmconDelegate.h"
#include "QmconEvent.h"
#include "QmconException.h"
#include "QmconThreadPool.h"
#include "net_test_support.h"

namespace {

// Shared record of what the work items did.
struct Journal {
  std::atomic<int> started{0}, ran{0}, destroyed{0}, stopCalls{0};
};

// Counts its runs; waits (at most 5 s) for `release`, which StopWork sets
// unless the item ignores stop requests, then holds for `holdMs`.
struct RecordingWork : QmconDelegate {
  RecordingWork(Journal* journal, int holdMs, QmconEvent* release = nullptr,
                bool ignoresStop = false)
      : journal(journal), holdMs(holdMs), release(release), ignoresStop(ignoresStop) {}
  ~RecordingWork() override { ++journal->destroyed; }
  void DoWork(void*) override {
    ++journal->started;
    if (release != nullptr) release->Wait(5000);
    std::this_thread::sleep_for(std::chrono::milliseconds(holdMs));
    ++journal->ran;
  }
  void StopWork() override {
    ++journal->stopCalls;
    if (release != nullptr && !ignoresStop) release->Broadcast();
  }
  Journal* journal;
  int holdMs;
  QmconEvent* release;
  bool ignoresStop;
};

// What a signal disposition is, comparable.
std::pair<void*, int> Disposition(int signo) {
  struct sigaction current {};
  sigaction(signo, nullptr, &current);
  return {reinterpret_cast<void*>(current.sa_handler), current.sa_flags};
}

TEST(ThreadPoolTest, OneWorkerRunsItemsInTurnRetiresWhenIdleAndStops) {
  Journal journal;
  QmconThreadPool pool;
  pool.Initialize(1);
  pool.SetIdleTimeout(150);
  unsigned long first = 0, second = 0;
  pool.AddWork(new RecordingWork(&journal, 100), first);
  pool.AddWork(new RecordingWork(&journal, 100), second);
  EXPECT_TRUE(first != 0 && second == 0);  // no second worker beyond the maximum
  ASSERT_TRUE(WaitUntil([&] { return pool.WorkerCount() == 0; }, 5000));  // idle: retired
  EXPECT_TRUE(journal.ran == 2 && !pool.IsThreadRunning(first));
  pool.AddWork(new RecordingWork(&journal, 0), second);  // a new worker is made
  EXPECT_TRUE(WaitUntil([&] { return journal.ran == 3; }, 5000));

  pool.Stop(100);
  RecordingWork late(&journal, 0);
  EXPECT_EQ("Thread Pool Is Stopping", Thrown<QmconException>([&] { pool.AddWork(&late); }));
  EXPECT_EQ(0u, pool.WorkerCount());
}

// Stop asks the running items to stop and waits for them; an item that does
// not stop is reported and left running with its worker, also after the
// pool has gone, until it returns by itself.
TEST(ThreadPoolTest, StopDropsQueuedItemsStopsRunningOnesAndLeavesAStragglerAlive) {
  Journal journal;
  RecordingLogger log;
  QmconEvent release(true), unstick(true);
  {
    QmconThreadPool pool;
    pool.Initialize(2);
    pool.SetLogger(&log);
    pool.AddWork(new RecordingWork(&journal, 0, &release));
    pool.AddWork(new RecordingWork(&journal, 0, &unstick, true));
    ASSERT_TRUE(WaitUntil([&] { return journal.started == 2; }, 5000));
    auto* queued = new RecordingWork(&journal, 0);
    pool.AddWork(queued);
    pool.AddWork(new RecordingWork(&journal, 0));
    EXPECT_TRUE(pool.DeleteTask(queued));
    EXPECT_FALSE(pool.DeleteTask(queued));

    EXPECT_TRUE(pool.Stop(1000));
    EXPECT_TRUE(journal.stopCalls == 2 && journal.ran == 1);  // the item that stopped
    EXPECT_EQ(3, journal.destroyed.load());                   // it and the two queued ones
    EXPECT_EQ(1u, pool.WorkerCount());                        // the straggler, left running
    EXPECT_EQ(1u, log.Count(QmLogInterface::LEVEL_ERROR, "still busy 1000 ms after the stop"));
  }
  unstick.Broadcast();
  ASSERT_TRUE(WaitUntil([&] { return journal.destroyed == 4; }, 5000));
  EXPECT_EQ(2, journal.ran.load());
}

// Neither the runtime's start nor a pool touches any signal disposition.
TEST(ThreadPoolTest, SignalDispositionsStayTheHosts) {
  std::vector<std::pair<void*, int>> before;
  for (int signo = 1; signo < NSIG; ++signo) before.push_back(Disposition(signo));
  ASSERT_TRUE(InitialLib());
  QmconThreadPool pool;
  pool.Initialize(1);
  for (int signo = 1; signo < NSIG; ++signo) EXPECT_EQ(before[signo - 1], Disposition(signo));
  for (int signo : {SIGTERM, SIGQUIT, SIGUSR1, SIGUSR2})
    EXPECT_EQ(reinterpret_cast<void*>(SIG_DFL), Disposition(signo).first) << signo;
}

}  // namespace
