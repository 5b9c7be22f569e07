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
// (StopWork tells it), counting iterations of 1 ms that each pass through an
// event's wait; reports its own end and deletion through events, and counts the
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
    QmconEvent pace;
    while (!stop) {
      ++ticks;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      pace.Wait(0);
    }
    finished.Broadcast();
  }
  void StopWork() override {
    ++stops;
    stop = true;
  }
  void PauseWork() override { ++pauses; }
  void ResumeWork() override { ++resumes; }
  std::atomic<bool> stop;
  std::atomic<int> runs{0}, stops{0}, pauses{0}, resumes{0};
  std::atomic<long> ticks{0};
  QmconEvent started{true}, finished{true};

 private:
  QmconEvent* m_deleted;
};

// True when the counter moves on within five seconds.
bool Advances(const std::atomic<long>& ticks) {
  const long from = ticks.load();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (ticks.load() <= from + 1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return ticks.load() > from + 1;
}

TEST_F(ThreadTest, RunsOneDelegateAtATimeThenBecomesIdle) {
  QmconThread thread;
  Work first, second(false);
  thread.Run(&first);
  ASSERT_EQ(first.started.Wait(5000), QmconEvent::SIGNALLED);
  EXPECT_TRUE(thread.IsRunning());
  thread.Run(&second);  // busy: starts nothing
  first.stop = true;
  thread.WaitForThreadObject(5000);
  EXPECT_EQ(second.runs.load(), 0);
  EXPECT_EQ(thread.GetThreadID(), QmconThread::kNoThread);
  thread.Run(&second);
  ASSERT_EQ(second.started.Wait(5000), QmconEvent::SIGNALLED);
  thread.WaitForThreadObject(5000);
  EXPECT_EQ(second.runs.load(), 1);

  // Idle again: Kill and Stop do nothing, Resume refuses.
  EXPECT_FALSE(thread.IsRunning());
  thread.Kill();
  thread.Stop();
  try {
    thread.Resume();
    ADD_FAILURE() << "Resume on an idle thread object";
  } catch (const QmconException& e) {
    EXPECT_EQ(e.GetMsg(), "Resume Thread Failed");
  }
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
// passes the request to the work and also ends a suspension.
TEST_F(ThreadTest, SuspendResumeAndKillAreRequestsTheThreadHonours) {
  QmconThread thread;
  Work work;
  thread.Run(&work);
  ASSERT_EQ(work.started.Wait(5000), QmconEvent::SIGNALLED);
  thread.Stop();
  EXPECT_EQ(work.pauses.load(), 1);
  const long atSuspend = work.ticks.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_LE(work.ticks.load(), atSuspend + 1);
  thread.Resume();
  EXPECT_EQ(work.resumes.load(), 1);
  EXPECT_TRUE(Advances(work.ticks));

  thread.Stop();
  const pthread_t id = thread.GetThreadID();
  EXPECT_NE(id, QmconThread::kNoThread);
  thread.Kill();  // the object forgets the thread at once
  EXPECT_EQ(thread.GetThreadID(), QmconThread::kNoThread);
  EXPECT_EQ(work.stops.load(), 1);
  EXPECT_EQ(work.finished.Wait(5000), QmconEvent::SIGNALLED);
}

// The thread object may go while its thread still runs: the thread never
// touches it.
TEST_F(ThreadTest, ObjectDestroyedWhileItsThreadRuns) {
  Work work;
  {
    QmconThread thread;
    thread.Run(&work);
    ASSERT_EQ(work.started.Wait(5000), QmconEvent::SIGNALLED);
  }
  EXPECT_TRUE(Advances(work.ticks));
  work.stop = true;
  EXPECT_EQ(work.finished.Wait(5000), QmconEvent::SIGNALLED);
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
