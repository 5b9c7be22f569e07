#include <cstdio>

#include "QmconDelegate.h"
#include "QmconThreadPool.h"
#include "soak_support.h"

namespace {

using Level = QmLogInterface::LogLevel;

const int kPoolRounds = kSoakScale == 1 ? 1000 : 200;

// What the work items of all rounds share. Outlives every item, including
// those left running after their pool has gone.
struct Workshop {
  std::FILE* sink = std::fopen("/dev/null", "w");
  std::atomic<int> live{0}, started{0};
};

// Loops until asked to stop, and on each pass allocates and prints to a
// stdio stream: a thread ended from outside there would leave the
// allocator's or the stream's lock held. A lingering item goes on for a while
// after the request, so that its pool's stop gives up on it.
class BusyWork : public QmconDelegate {
 public:
  BusyWork(Workshop* shop, bool lingers) : m_shop(shop), m_lingers(lingers) { ++m_shop->live; }
  ~BusyWork() override { --m_shop->live; }
  void DoWork(void*) override {
    ++m_shop->started;
    int pass = 0;
    while (!m_stop) Pass(pass++);
    const Clock::time_point until = Clock::now() + std::chrono::milliseconds(300);
    while (m_lingers && Clock::now() < until) Pass(pass++);
  }
  void StopWork() override { m_stop = true; }

 private:
  void Pass(int pass) {
    std::vector<std::string> garbage;
    for (int i = 0; i < 16; ++i) garbage.emplace_back(32 + (pass + i) % 200, 'x');
    std::fprintf(m_shop->sink, "pass %d, %zu bytes\n", pass, garbage.back().size());
  }

  Workshop* m_shop;
  const bool m_lingers;
  std::atomic<bool> m_stop{false};
};

// Pools stopped while their workers allocate and print: every stop
// returns within its bound, the workers it gives up on are reported and
// finish by themselves after the pool has gone, and nothing is left behind.
TEST(PoolStopTest, StoppedOverAndOverWhileWorkersAllocateAndPrint) {
  const int stopBoundMs = 100;
  RecordingLogger reports;
  Workshop shop;
  ASSERT_NE(shop.sink, nullptr);
  std::thread([] {}).join();  // a sanitizer's own thread starts with the first thread
  const size_t threadsBefore = ThreadCount();
  long residentAfterWarmUp = 0;
  Clock::duration longestStop{};

  for (int round = 0; round < kPoolRounds; ++round) {
    if (round == kPoolRounds / 10) residentAfterWarmUp = ResidentKiB();
    const bool oneLingers = round % 50 == 49;  // kPoolRounds / 50 rounds
    const int startedBefore = shop.started;
    QmconThreadPool pool;
    pool.Initialize(4);
    pool.SetLogger(&reports);
    for (int i = 0; i < 6; ++i) pool.AddWork(new BusyWork(&shop, oneLingers && i == 0));
    // Four run (the first always among them); two wait in the queue.
    ASSERT_TRUE(WaitUntil([&] { return shop.started >= startedBefore + 4; }, 10000));
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(pool.Stop(stopBoundMs));
    longestStop = std::max(longestStop, Clock::now() - start);
  }

  // Every item ends, the lingering ones after their pools have gone.
  EXPECT_TRUE(WaitUntil([&] { return shop.live == 0; }, 30000)) << shop.live;
  EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= threadsBefore; }, 10000));
  const long grownKiB = ResidentKiB() - residentAfterWarmUp;
  EXPECT_GE(reports.Count(Level::LEVEL_ERROR, "left running"),
            static_cast<size_t>(kPoolRounds / 50));
  EXPECT_LT(longestStop, std::chrono::seconds(5));
#ifndef QM_SOAK_SANITIZED
  // The address checker keeps freed memory in quarantine, so the resident set
  // says nothing about leaks there; its leak checker looks for them instead.
  EXPECT_LT(grownKiB, 16 * 1024);
#endif
  std::cout << "[ soak ] " << kPoolRounds << " pool stops: longest "
            << std::chrono::duration_cast<std::chrono::milliseconds>(longestStop).count() << " ms, "
            << reports.Count(Level::LEVEL_ERROR, "left running")
            << " workers left running and reported, resident set grew " << grownKiB
            << " KiB after the warm-up" << std::endl;
  std::fclose(shop.sink);
}

}  // namespace
