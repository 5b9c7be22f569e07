#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "QmconCriticalSection.h"
#include "QmconEvent.h"
#include "QmconLock.h"

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
  QmconCriticalSection owned;
  EXPECT_TRUE(owned.Enter());
  EXPECT_EQ(tryFromOther(owned.GetLockObj()), 1);
  EXPECT_TRUE(owned.Leave());
}

}  // namespace
