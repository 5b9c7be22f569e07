#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "QmString.h"
#include "QmconDelegate.h"
#include "QmconThreadPool.h"
#include "QmsysEventLogInterface.h"
#include "log_test_util.h"
#include "soak_support.h"

namespace {

using Level = QmLogInterface::LogLevel;
using Mode = LoopbackOapServer::Mode;

const int kPoolRounds = kSoakScale == 1 ? 1000 : 200;

// What the work items of all rounds share. Outlives every item, including
// those left running after their pool has gone.
struct Workshop {
  static const int kSlots = 4;
  QmLogInterface* loggers[kSlots] = {};
  std::FILE* sink = nullptr;
  std::atomic<int> live{0}, started{0};
};

// Loops until asked to stop, and on each pass allocates and prints to a
// stdio stream; logs a line on its first pass and every 64th, to the logger
// of its slot. (Writers of one log file take turns with a 30 ms back-off, so
// one file for all would mostly measure the file lock.) A lingering item goes
// on for a while after the request, so that its pool's stop gives up on it.
class BusyWork : public QmconDelegate {
 public:
  BusyWork(Workshop* shop, int slot, bool lingers)
      : m_shop(shop), m_slot(slot % Workshop::kSlots), m_lingers(lingers) {
    ++m_shop->live;
  }
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
    if (pass % 64 == 0) {
      m_shop->loggers[m_slot]->WriteInfo(QmstringFormat("pass %d", pass), __LINE__,
                                         "soak_stop_test");
    }
  }

  Workshop* m_shop;
  const int m_slot;
  const bool m_lingers;
  std::atomic<bool> m_stop{false};
};

// File loggers of the runtime's own, "slot0" to "slot3", configured in a
// fresh directory; false when one does not start.
bool MakeFileLoggers(const LogTempDir& dir, Workshop& shop) {
  std::string config = "[main]\n", sections;
  for (int slot = 0; slot < Workshop::kSlots; ++slot) {
    const std::string name = "slot" + std::to_string(slot);
    config += name + "=" + name + "_logger\n";
    sections += "[" + name +
                "_logger]\nwriter=file\nlevel=info\nfilePath=" + dir.file(name + ".log") +
                "\nbytesPerFiles=204800\nnumFiles=2\nperProcessFile=0\n";
  }
  LogWriteFile(dir.file("qmlogs.ini"), config + sections);
  for (int slot = 0; slot < Workshop::kSlots; ++slot) {
    QmsysEventLogInterface* logger = QmsysEventLogInterface::CreateInstance(
        "slot" + std::to_string(slot), QmsysEventLogInterface::SINGLE_THREADED, dir.path(), "soak");
    if (logger == nullptr || !logger->Start()) return false;
    shop.loggers[slot] = logger;
  }
  return true;
}

// Pools stopped while their workers allocate, print and log: every stop
// returns within its bound, the workers it gives up on are reported and
// finish by themselves after the pool has gone, and nothing is left behind.
TEST(PoolStopTest, StoppedOverAndOverWhileWorkersAllocatePrintAndLog) {
  const int stopBoundMs = 100;
  LogTempDir dir;
  RecordingLogger reports;
  Workshop shop;
  ASSERT_TRUE(MakeFileLoggers(dir, shop));
  shop.sink = std::fopen("/dev/null", "w");
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
    for (int i = 0; i < 6; ++i) pool.AddWork(new BusyWork(&shop, i, oneLingers && i == 0));
    // Four run (the first always among them); two wait in the queue.
    while (shop.started < startedBefore + 4) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(pool.Stop(stopBoundMs));
    longestStop = std::max(longestStop, Clock::now() - start);
  }

  // Every item ends, the lingering ones after their pools have gone.
  EXPECT_TRUE(WaitUntil([&] { return shop.live == 0; }, 30)) << shop.live;
  EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= threadsBefore; }, 10));
  const long grownKiB = ResidentKiB() - residentAfterWarmUp;
  EXPECT_GE(reports.Count(Level::LEVEL_ERROR, "left running"),
            static_cast<size_t>(kPoolRounds / 50));
  EXPECT_LT(longestStop, std::chrono::seconds(5));
#ifndef QM_SOAK_SANITIZED
  // The address checker keeps freed memory in quarantine, so the resident set
  // says nothing about leaks there; its leak checker looks for them instead.
  EXPECT_LT(grownKiB, 16 * 1024);
#endif
  std::printf(
      "%d pool stops: longest %lld ms, %zu workers left running and reported, "
      "resident set grew %ld KiB after the warm-up\n",
      kPoolRounds,
      static_cast<long long>(
          std::chrono::duration_cast<std::chrono::milliseconds>(longestStop).count()),
      reports.Count(Level::LEVEL_ERROR, "left running"), grownKiB);

  std::fclose(shop.sink);
  QmsysEventLogInterface::ReleaseAll();
}

class HostSignalTest : public SoakDriverTest {
 protected:
  // Brings the host into the state named in the test, then has a process of
  // its own send it SIGTERM. Only returns (with a code naming the step) when
  // it failed.
  int ServeThenTakeSigterm() {
    QmReferenceJob* answered = new QmReferenceJob();  // the process ends with it
    Address(*answered, "4711", "3.0", true);
    Status status;
    if (!driver->SendAMessage(answered, status)) return 10;
    server.SetMode(Mode::kSilent);
    // The handset answers: a listener worker echoes the answer to the now
    // silent server and waits for its reply.
    const std::string answer =
        AnswerDoc(Hex(answered->GetTrackingReceipt()), "3.0", false, "N:Yes");
    std::thread([this, answer] { SendInbound(listenerPort, answer); }).detach();
    if (!WaitUntil([this] { return server.Repeats() >= 1; }, 10)) return 11;
    // Host threads inside SendAMessage, waiting on the silent server.
    std::atomic<int> sending{0};
    for (int t = 0; t < 4; ++t) {
      std::thread([this, &sending] {
        auto* job = new QmReferenceJob();
        Address(*job, "4711", "3.0", false);
        for (;;) {
          Status sent;
          ++sending;
          driver->SendAMessage(job, sent);
        }
      }).detach();
    }
    while (sending < 4) std::this_thread::yield();
    // Either of two clocks ends the process when the signal did not.
    std::thread([] {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      _exit(12);
    }).detach();
    // The signal comes from another process, as from kill -TERM.
    const pid_t host = getpid();
    if (fork() == 0) _exit(kill(host, SIGTERM) == 0 ? 0 : 1);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    _exit(13);
  }
};

// The host's SIGTERM is the host's: a host busy with the plug-in (listener
// up, sends in flight, a worker waiting on a slow server) is ended by the
// signal's default action within a second.
TEST_F(HostSignalTest, SigtermEndsTheHostByItsDefaultAction) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(ServeThenTakeSigterm()), ::testing::KilledBySignal(SIGTERM), "");
}

}  // namespace
