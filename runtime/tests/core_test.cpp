// The core: events, locks, threads, exceptions and string helpers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "QmAny.h"
#include "QmException.h"
#include "QmString.h"
#include "QmconCriticalSection.h"
#include "QmconEvent.h"
#include "QmconException.h"
#include "QmconThread.h"
#include "QmioException.h"
#include "log_test_util.h"
#include "test_support.h"

namespace {

TEST(QmconEventTest, AutoResetConsumesOneSignalManualStaysUntilReset) {
  QmconEvent autoReset, manual(true);
  autoReset.Broadcast();
  manual.Broadcast();
  EXPECT_EQ(autoReset.Wait(0), QmconEvent::SIGNALLED);
  EXPECT_EQ(autoReset.Wait(0), QmconEvent::TIMEDOUT);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(manual.Wait(0), QmconEvent::SIGNALLED);
  manual.Reset();
  EXPECT_EQ(manual.Wait(-7), QmconEvent::TIMEDOUT);  // a negative time-out waits as 0
}

TEST(QmconEventTest, DestructionReleasesAllWaiters) {
  for (bool manual : {false, true}) {
    auto* event = new QmconEvent(manual);
    std::atomic<int> entered{0};
    std::vector<int> results(4, 0);
    std::vector<std::thread> waiters;
    for (size_t i = 0; i < results.size(); ++i)
      waiters.emplace_back([&, i] { ++entered, results[i] = event->Wait(-1); });
    while (entered < 4) std::this_thread::yield();
    // Nothing shows that a thread has blocked inside Wait; give the waiters a moment.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    delete event;
    for (auto& t : waiters) t.join();
    for (int r : results) EXPECT_EQ(r, QmconEvent::SIGNALLED) << "manual=" << manual;
  }
}

TEST(QmconLockTest, RecursiveForOwnerBusyForOthersAlsoThroughScopedGuards) {
  QmconLock lock;
  int fromOther = -1;
  auto tryFromOther = [&](QmconLock* l) {
    std::thread([&] {
      if ((fromOther = l->TryLock()) == 0) l->Unlock();
    }).join();
    return fromOther;
  };
  ASSERT_EQ(lock.Lock(), 0);
  EXPECT_EQ(lock.TryLock(), 0);  // the owner may take it again
  EXPECT_EQ(tryFromOther(&lock), 1);
  EXPECT_TRUE(lock.Unlock() == 0 && lock.Unlock() == 0);
  EXPECT_EQ(tryFromOther(&lock), 0);
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        QmconCriticalSection guard(&lock, true, true, false);
        ++counter;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 40000);
  EXPECT_EQ(tryFromOther(&lock), 0);  // every guard released its lock
}

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
    return WaitUntil([&] { return ticks > from + 1; }, 5000);
  }
  bool Started() { return started.Wait(5000) == QmconEvent::SIGNALLED; }
  std::atomic<bool> stop;
  std::atomic<int> runs{0}, stops{0}, pauses{0}, resumes{0};
  std::atomic<long> ticks{0};
  QmconEvent started{true}, finished{true};

 private:
  QmconEvent* m_deleted;
};

TEST(ThreadTest, RunsOneDelegateAtATimeThenBecomesIdle) {
  QmconThread thread;
  Work first, second(false);
  thread.Run(&first);
  ASSERT_TRUE(first.Started());
  EXPECT_TRUE(thread.IsRunning());
  thread.Run(&second);  // busy: starts nothing
  first.stop = true;
  EXPECT_EQ(thread.WaitForThreadObject(5000), 0);
  EXPECT_TRUE(second.runs == 0 && thread.GetThreadID() == QmconThread::kNoThread);
  thread.Run(&second);
  ASSERT_TRUE(second.Started());
  thread.WaitForThreadObject(5000);
  EXPECT_EQ(second.runs.load(), 1);

  // Idle again: Kill and Stop do nothing, Resume refuses.
  EXPECT_FALSE(thread.IsRunning());
  thread.Kill();
  thread.Stop();
  EXPECT_EQ("Resume Thread Failed", Thrown<QmconException>([&] { thread.Resume(); }));
  EXPECT_EQ(second.stops + second.pauses + second.resumes, 0);
}

TEST(ThreadTest, AutoCleanDeletesThreadAndDelegate) {
  QmconEvent deleted(true);
  auto* thread = new QmconThread();
  thread->SetAutoClean(true);
  thread->Run(new Work(false, &deleted));
  EXPECT_EQ(deleted.Wait(5000), QmconEvent::SIGNALLED);
}

// Suspension is taken at the thread's next wait and lasts until Resume; Kill
// passes the request to the work, ends a suspension and forgets the thread,
// and the object may go while its thread still runs: the thread never touches it.
TEST(ThreadTest, SuspendResumeAndKillAreRequestsTheThreadHonours) {
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

TEST(ExceptionTest, ToStringFormats) {
  EXPECT_EQ(QmException("QmioSocket", 12, "Socket is closed", "Success").ToString(),
            "Exception raised! File[QmioSocket] Line[12] Msg[Socket is closed] SysMsg[Success]");
  EXPECT_EQ(QmioException("10.0.0.1:7000", "QmioSocket", 3, "Socket Connecting Failed", "refused")
                .ToString(),
            "Exception raised! IO path[10.0.0.1:7000] File[QmioSocket] Line[3] "
            "Msg[Socket Connecting Failed] SysMsg[refused]");
  // The file's name only, however the build named it.
  EXPECT_EQ(
      QmconException(42, "/build/runtime/src/QmconEvent.cpp", 7, "Lock failed", "Invalid argument")
          .ToString(),
      "Exception raised! ThreadID[42] File[QmconEvent.cpp] Line[7] Msg[Lock failed] "
      "SysMsg[Invalid argument]");
}

TEST(StringHelpersTest, TextAndNumberConversions) {
  const unsigned char raw[] = {'O', 'K', '\r', '\n', 0x00, 0xE9, '\\'};
  using std::to_string;
  const auto hex = [](const char* text) { return to_string(QmHexStrToUInt(text)); };
  const std::pair<std::string, std::string> cases[] = {
      {QmstringReplaceColon("Yes%3aNo%3AMaybe"), "Yes:No:Maybe"},
      {QmstringReplaceColon("a%3ab%3Bc%3ad"), "a:b%3Bc%3ad"},  // stops at another escape
      {QmstringReplaceColon("ends%3"), "ends%3"},
      {QmstringTrim(" \t a b \r\n"), "a b"},
      {QmstringReplaceAll("a b c", " ", "_"), "a_b_c"},
      {QmstringFormat("%s-%05d", "x", 42), "x-00042"},
      {QmstringSafeByteString(raw, sizeof(raw)), "OK\\r\\n\\x00\\xE9\\\\"},
      {QmAny(4294967295ul).asString(), "4294967295"},
      {hex("1a") + "," + hex("2B") + "," + hex("ff zz"), "26,43,255"},
      {hex("zz") + "," + hex("") + "," + hex("123456789"), "0,0,4294967295"},
      {to_string(QmAny("4294967295").asUInt()) + "," + to_string(QmAny("junk").asUInt()),
       "4294967295,0"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.first, c.second);
  EXPECT_EQ(QmstringFormat("%s", std::string(5000, 'z').c_str()).size(), 5000u);
  EXPECT_TRUE(QmstringEqualsNoCase("[Main]", "[main]") && !QmstringEqualsNoCase("main", "mains"));
}

}  // namespace
