// Cleanup while the host is busy with the plug-in: host threads send to a
// server that is silent for a random part of the requests, answers are
// pushed to the listener, and Cleanup comes at a random moment; then Setup
// again, round after round. Every Cleanup returns promptly, every send
// returns within the exchange time-out (plus a margin) with a status and a
// reason, a send still waiting on the server when Cleanup returns ends at
// once (Cleanup shuts its socket down), sends after Cleanup fail with "OAP
// Client not set up", and threads and descriptors are back to where they were
// after each round.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <mutex>
#include <random>

#include "soak_support.h"

namespace {

using Clock = std::chrono::steady_clock;
using Reports = QmMessengerReportsMngrInterface;

const int kHostThreads = 8;
const int kPushers = 2;
#ifdef QM_SOAK_SANITIZED
const int kDefaultRounds = 20;
// Sanitizer builds run several times slower; their bounds only catch hangs.
const auto kCleanupBound = std::chrono::seconds(10);
const auto kSendBound = std::chrono::seconds(10);
const auto kPastCleanupBound = std::chrono::seconds(10);
#else
const int kDefaultRounds = 200;
const auto kCleanupBound = std::chrono::seconds(3);
// The exchange's 2 s for an answer, and a margin for a loaded machine.
const auto kSendBound = std::chrono::milliseconds(3000);
// A send in flight at Cleanup has its socket shut down: it does not wait out
// the exchange's 2 s.
const auto kPastCleanupBound = std::chrono::milliseconds(1000);
#endif

int Rounds() {
  const char* rounds = std::getenv("QM_SOAK_ROUNDS");
  return rounds != nullptr ? std::atoi(rounds) : kDefaultRounds;
}

// What the host threads of one round saw.
struct Outcome {
  std::mutex mutex;
  Clock::duration longestSend{}, longestPastCleanup{};
  size_t sent = 0, failed = 0, refusedAfterCleanup = 0;
  std::vector<std::string> faults;

  void Add(Clock::duration took, Clock::duration pastCleanup, bool ok, bool afterCleanup,
           const QmReferenceJob& job) {
    std::lock_guard<std::mutex> guard(mutex);
    longestSend = std::max(longestSend, took);
    longestPastCleanup = std::max(longestPastCleanup, pastCleanup);
    (ok ? sent : failed) += 1;
    const std::string error = job.GetErrorText();

    if (afterCleanup) {
      refusedAfterCleanup += ok ? 0 : 1;
      if (ok || error != "OAP Client not set up")
        faults.push_back("after Cleanup: '" + error + "'");
    } else if (!ok && error.empty()) {
      faults.push_back("a failed send without a reason");
    }
  }
};

class CleanupSoakTest : public DriverTest {
 protected:
  CleanupSoakTest() : server(kHostThreads) {}

  // Answers to the messages sent, written to the listener by a few threads.
  void PushLoop() {
    std::unique_lock<std::mutex> lock(pushMutex);
    for (;;) {
      pushChanged.wait(lock, [&] { return closing || !documents.empty(); });
      if (documents.empty()) return;
      const std::string document = std::move(documents.front());
      documents.pop_front();
      lock.unlock();
      SendInbound(listenerPort, document);  // refused once the listener is down
      lock.lock();
    }
  }

  void Push(const QmReferenceJob& job) {
    std::lock_guard<std::mutex> guard(pushMutex);
    documents.push_back(AnswerDoc(Hex(job.GetTrackingReceipt()), job.OapVersion, false, "N:Yes"));
    pushChanged.notify_all();
  }

  LoopbackOapServer server;
  std::mutex pushMutex;
  std::condition_variable pushChanged;
  std::deque<std::string> documents;
  bool closing = false;
};

TEST_F(CleanupSoakTest, CleanupAtRandomMomentsWhileTheHostSendsAndAnswersArrive) {
  const unsigned seed = SoakSeed();
  std::mt19937 rng(seed);
  const size_t threadsBefore = ThreadCount(), descriptorsBefore = DescriptorCount();
  Clock::duration longestCleanup{}, longestSend{}, longestPastCleanup{};
  size_t sent = 0, failed = 0, refused = 0;
  for (int round = 0; round < Rounds() && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round) + ", seed " + std::to_string(seed));
    SetupOnFreePort();
    server.SetSilentShare(static_cast<int>(rng() % 50));
    Outcome outcome;
    std::atomic<bool> cleanedUp{false}, stop{false};
    Clock::time_point cleanupEnd;  // written before cleanedUp is set
    std::atomic<int> sendsAfterCleanup{0};
    closing = false;
    std::vector<std::thread> threads;
    for (int t = 0; t < kPushers; ++t) threads.emplace_back([this] { PushLoop(); });
    for (int t = 0; t < kHostThreads; ++t) {
      threads.emplace_back([&, t] {
        QmReferenceJob job;
        DriverTest::Address(job, server.Port(), t % 2 ? "4.0" : "3.0");
        job.DeviceId = "90" + std::to_string(t);
        job.IsInteractive = job.ExpectsResponse = true;
        job.ResponseChoices = {{0, "Yes", "", 0, 0}};
        while (!stop) {
          const bool afterCleanup = cleanedUp;
          job.SetErrorText("");
          Status status;
          const Clock::time_point start = Clock::now();
          const bool ok = driver->SendAMessage(&job, status);
          const Clock::time_point end = Clock::now();
          const bool inFlightAtCleanup = !afterCleanup && cleanedUp;
          outcome.Add(end - start, inFlightAtCleanup ? end - cleanupEnd : Clock::duration{}, ok,
                      afterCleanup, job);
          if (ok) Push(job);
          if (afterCleanup) ++sendsAfterCleanup;
          // A host does not retry a failed job in a tight loop; eight threads
          // doing so would starve Cleanup of the machine's two cores.
          if (!ok) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 500));
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(driver->Cleanup());
    const Clock::duration took = Clock::now() - start;
    longestCleanup = std::max(longestCleanup, took);
    EXPECT_LT(took, kCleanupBound);
    cleanupEnd = Clock::now();
    cleanedUp = true;
    // Every host thread tries again after Cleanup before the round ends.
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (sendsAfterCleanup < 2 * kHostThreads && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    stop = true;
    {
      std::lock_guard<std::mutex> guard(pushMutex);
      closing = true;
      documents.clear();
    }
    pushChanged.notify_all();
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(outcome.faults, std::vector<std::string>());

    EXPECT_LT(outcome.longestSend, kSendBound);
    EXPECT_LT(outcome.longestPastCleanup, kPastCleanupBound);
    EXPECT_GE(outcome.refusedAfterCleanup, static_cast<size_t>(kHostThreads));
    EXPECT_LE(ThreadsAfterWaiting(threadsBefore, 10000), threadsBefore);
    const Clock::time_point fdDeadline = Clock::now() + std::chrono::seconds(10);
    while (DescriptorCount() > descriptorsBefore && Clock::now() < fdDeadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_LE(DescriptorCount(), descriptorsBefore);
    longestSend = std::max(longestSend, outcome.longestSend);
    longestPastCleanup = std::max(longestPastCleanup, outcome.longestPastCleanup);
    sent += outcome.sent;
    failed += outcome.failed;
    refused += outcome.refusedAfterCleanup;
  }
  std::cout << "[ soak ] " << Rounds() << " rounds of Cleanup under load: longest Cleanup "
            << std::chrono::duration_cast<std::chrono::milliseconds>(longestCleanup).count()
            << " ms, longest send "
            << std::chrono::duration_cast<std::chrono::milliseconds>(longestSend).count()
            << " ms, longest send past Cleanup "
            << std::chrono::duration_cast<std::chrono::milliseconds>(longestPastCleanup).count()
            << " ms; " << sent << " sends accepted, " << failed << " failed (" << refused
            << " of them after Cleanup)" << std::endl;
}

}  // namespace
