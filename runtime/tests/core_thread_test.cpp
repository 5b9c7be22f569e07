#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "QmconEvent.h"
#include "QmconException.h"
#include "QmconFunctions.h"
#include "QmconThread.h"

namespace {

class ThreadTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { QmconThread::InitializeLibrary(); }
};

// Counts its runs and, unless made with spin = false, loops until told to stop
// (StopWork tells it), counting 1 ms iterations that each pass through an
// event's wait; reports its end and deletion through events, and counts the
// calls of its hooks.
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
    for (QmconEvent pace; !stop; pace.Wait(0)) {
      ++ticks;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    finished.Broadcast();
  }
  void StopWork() override { ++stops, stop = true; }
  void PauseWork() override { ++pauses; }
  void ResumeWork() override { ++resumes; }
  // True when the work goes on ticking within five seconds.
  bool Advances() const {
    const long from = ticks.load();
    for (int i = 0; i < 5000 && ticks <= from + 1; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return ticks > from + 1;
  }
  bool Started() { return started.Wait(5000) == QmconEvent::SIGNALLED; }
  std::atomic<bool> stop;
  std::atomic<int> runs{0}, stops{0}, pauses{0}, resumes{0};
  std::atomic<long> ticks{0};
  QmconEvent started{true}, finished{true};

 private:
  QmconEvent* m_deleted;
};

TEST_F(ThreadTest, RunsOneDelegateAtATimeThenBecomesIdle) {
  QmconThread thread;
  Work first, second(false);
  thread.Run(&first);
  ASSERT_TRUE(first.Started());
  EXPECT_TRUE(thread.IsRunning());
  thread.Run(&second);  // busy: starts nothing
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    first.stop = true;
  });
  // A time-out that is no multiple of the polling step waits until the end.
  EXPECT_EQ(thread.WaitForThreadObject(100), 0);
  stopper.join();
  EXPECT_TRUE(second.runs == 0 && thread.GetThreadID() == QmconThread::kNoThread);
  thread.Run(&second);
  ASSERT_TRUE(second.Started());
  thread.WaitForThreadObject(5000);
  EXPECT_EQ(second.runs.load(), 1);

  // Idle again: Kill and Stop do nothing, Resume refuses.
  EXPECT_FALSE(thread.IsRunning());
  thread.Kill();
  thread.Stop();
  std::string thrown;
  try {
    thread.Resume();
  } catch (const QmconException& e) {
    thrown = e.GetMsg();
  }
  EXPECT_EQ(thrown, "Resume Thread Failed");
  EXPECT_EQ(second.stops + second.pauses + second.resumes, 0);
}

TEST_F(ThreadTest, AutoCleanDeletesThreadAndDelegate) {
  QmconEvent deleted(true);
  auto* thread = new QmconThread();
  thread->SetAutoClean(true);
  thread->Run(new Work(false, &deleted));
  EXPECT_EQ(deleted.Wait(5000), QmconEvent::SIGNALLED);
}

// Suspension is taken at the thread's next wait and lasts until Resume; Kill
// passes the request to the work, ends a suspension and forgets the thread,
// and the object may go while its thread still runs: the thread never touches it.
TEST_F(ThreadTest, SuspendResumeAndKillAreRequestsTheThreadHonours) {
  Work work, outliving;
  {
    QmconThread thread, dropped;
    dropped.Run(&outliving);
    thread.Run(&work);
    ASSERT_TRUE(work.Started() && outliving.Started());
    thread.Stop();
    EXPECT_EQ(work.pauses.load(), 1);
    const long atSuspend = work.ticks.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_LE(work.ticks.load(), atSuspend + 1);
    thread.Resume();
    EXPECT_EQ(work.resumes.load(), 1);
    EXPECT_TRUE(work.Advances());

    thread.Stop();
    EXPECT_NE(thread.GetThreadID(), QmconThread::kNoThread);
    thread.Kill();
    EXPECT_EQ(thread.GetThreadID(), QmconThread::kNoThread);
    EXPECT_EQ(work.stops.load(), 1);
    EXPECT_EQ(work.finished.Wait(5000), QmconEvent::SIGNALLED);
  }
  EXPECT_TRUE(outliving.Advances());
  outliving.stop = true;
  EXPECT_EQ(outliving.finished.Wait(5000), QmconEvent::SIGNALLED);
}

}  // namespace
