#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "QmconCriticalSection.h"
#include "QmconEvent.h"
#include "QmconLock.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

TEST(QmconEventTest, AutoResetConsumesOneSignalManualStaysUntilReset) {
  QmconEvent autoReset, manual(true);
  EXPECT_EQ(autoReset.Wait(0), QmconEvent::TIMEDOUT);
  autoReset.Broadcast();
  manual.Broadcast();
  EXPECT_EQ(autoReset.Wait(0), QmconEvent::SIGNALLED);
  EXPECT_EQ(autoReset.Wait(0), QmconEvent::TIMEDOUT);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(manual.Wait(0), QmconEvent::SIGNALLED);
  manual.Reset();
  EXPECT_EQ(manual.Wait(0), QmconEvent::TIMEDOUT);
  EXPECT_EQ(manual.Wait(-7), QmconEvent::TIMEDOUT);  // a negative time-out waits as 0
}

TEST(QmconEventTest, SubSecondPartOfTimeoutCountsAsMicroseconds) {
  QmconEvent event;
  auto start = Clock::now();
  EXPECT_EQ(event.Wait(1500), QmconEvent::TIMEDOUT);
  const auto elapsed = Clock::now() - start;
  // About 1.0015 s, not 1.5 s.
  EXPECT_GE(elapsed, 950ms);
  EXPECT_LT(elapsed, 1400ms);

  start = Clock::now();
  EXPECT_EQ(event.Wait(500), QmconEvent::TIMEDOUT);
  EXPECT_LT(Clock::now() - start, 300ms);
}

TEST(QmconEventTest, DestructionReleasesAllWaiters) {
  for (bool manual : {false, true}) {
    auto* event = new QmconEvent(manual);
    std::atomic<int> entered{0};
    std::vector<std::thread> waiters;
    std::vector<int> results(4, 0);
    for (size_t i = 0; i < results.size(); ++i) {
      waiters.emplace_back([&, i] {
        ++entered;
        results[i] = event->Wait(-1);
      });
    }
    while (entered < 4) std::this_thread::yield();
    // No observable state tells that a thread has blocked inside Wait; give
    // the waiters a moment to get there.
    std::this_thread::sleep_for(100ms);
    delete event;
    for (auto& t : waiters) t.join();
    for (int r : results) EXPECT_EQ(r, QmconEvent::SIGNALLED) << "manual=" << manual;
  }
}

TEST(QmconLockTest, RecursiveForOwnerBusyForOthersAlsoThroughScopedGuards) {
  QmconLock lock;
  ASSERT_EQ(lock.Lock(), 0);
  EXPECT_EQ(lock.TryLock(), 0);  // the owner may take it again
  int fromOther = -1;
  std::thread([&] { fromOther = lock.TryLock(); }).join();
  EXPECT_EQ(fromOther, 1);
  EXPECT_EQ(lock.Unlock(), 0);
  EXPECT_EQ(lock.Unlock(), 0);
  std::thread([&] {
    fromOther = lock.TryLock();
    if (fromOther == 0) lock.Unlock();
  }).join();
  EXPECT_EQ(fromOther, 0);
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        QmconCriticalSection guard(&lock, true, true, false);
        ++counter;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 40000);
  EXPECT_EQ(lock.TryLock(), 0);  // every guard released its lock
  lock.Unlock();
  QmconCriticalSection owned;
  EXPECT_TRUE(owned.Enter());
  fromOther = -1;
  std::thread([&] { fromOther = owned.GetLockObj()->TryLock(); }).join();
  EXPECT_EQ(fromOther, 1);
  EXPECT_TRUE(owned.Leave());
}

}  // namespace
