// Cleanup while the host is busy with the plug-in: host threads send to a
// server that is silent for a random part of the requests, answers are
// pushed to the listener, and Cleanup comes at a random moment; then Setup
// again, round after round. Every Cleanup returns promptly, every send
// returns within the exchange time-out (plus a margin) with a status and a
// reason, a send still waiting on the server when Cleanup returns ends at
// once (Cleanup shuts its socket down), sends after Cleanup fail with "OAP
// Client not set up", and threads and descriptors are back to where they were
// after each round.

#include "soak_support.h"

namespace {

const int kHostThreads = 8;
const int kPushers = 2;
const bool kSanitized = kSoakScale > 1;
// Bounds of Cleanup and of a send (the exchange's 2 s for an answer and a
// margin for a loaded machine). Sanitizer builds run several times slower;
// their bounds only catch hangs.
const auto kBound = std::chrono::seconds(kSanitized ? 10 : 3);
// A send in flight at Cleanup has its socket shut down: it does not wait out
// the exchange's 2 s.
const auto kPastCleanupBound = std::chrono::seconds(kSanitized ? 10 : 1);

const char* const kRoundsSet = std::getenv("QM_SOAK_ROUNDS");
const int kRounds = kRoundsSet != nullptr ? std::atoi(kRoundsSet) : (kSanitized ? 20 : 200);

using CleanupSoakTest = SoakDriverTest;

TEST_F(CleanupSoakTest, CleanupAtRandomMomentsWhileTheHostSendsAndAnswersArrive) {
  const unsigned seed = SoakSeed();
  std::mt19937 rng(seed);
  ASSERT_TRUE(driver->Cleanup());  // every round sets up afresh
  const size_t descriptorsBefore = DescriptorCount();
  // What Cleanup and the host threads saw in every round so far.
  std::mutex mutex;  // for the host threads' figures
  Clock::duration longestCleanup{}, longestSend{}, longestPastCleanup{};
  size_t sent = 0, failed = 0;
  std::atomic<size_t> sendsAfterCleanup{0};  // each one refused
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round) + ", seed " + std::to_string(seed));
    SetupOnFreePort();
    server.SetFaults(static_cast<int>(rng() % 50), false);
    const size_t afterCleanupBefore = sendsAfterCleanup;
    std::atomic<bool> cleanedUp{false}, stop{false};
    Clock::time_point cleanupEnd;  // written before cleanedUp is set
    // Answers to the messages sent; refused once the listener is down.
    Pusher pusher(kPushers,
                  [this](const std::string& answer) { SendInbound(listenerPort, answer); });
    std::vector<std::thread> threads;
    for (int t = 0; t < kHostThreads; ++t) {
      threads.emplace_back([&, t] {
        QmReferenceJob job;
        Address(job, "90" + std::to_string(t), t % 2 ? "4.0" : "3.0");
        while (!stop) {
          const bool afterCleanup = cleanedUp;
          job.SetErrorText("");
          Status status;
          const Clock::time_point start = Clock::now();
          const bool ok = driver->SendAMessage(&job, status);
          const Clock::time_point end = Clock::now();
          const bool inFlightAtCleanup = !afterCleanup && cleanedUp;
          if (afterCleanup) {
            EXPECT_FALSE(ok);
            EXPECT_EQ(job.GetErrorText(), "OAP Client not set up");
          } else if (!ok) {
            EXPECT_NE(job.GetErrorText(), "") << "a failed send without a reason";
          }
          {
            std::lock_guard<std::mutex> guard(mutex);
            longestSend = std::max(longestSend, end - start);
            if (inFlightAtCleanup) {
              longestPastCleanup = std::max(longestPastCleanup, end - cleanupEnd);
            }
            (ok ? sent : failed) += 1;
          }
          if (ok)
            pusher.Add(AnswerDoc(Hex(job.GetTrackingReceipt()), job.OapVersion, false, "N:Yes"));
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
    cleanupEnd = Clock::now();
    longestCleanup = std::max(longestCleanup, cleanupEnd - start);
    EXPECT_LT(cleanupEnd - start, kBound);
    cleanedUp = true;
    // The host threads try again after Cleanup before the round ends.
    EXPECT_TRUE(WaitUntil(
        [&] { return sendsAfterCleanup >= afterCleanupBefore + 2 * kHostThreads; }, 10000));
    stop = true;
    pusher.Stop(true);
    for (std::thread& thread : threads) thread.join();

    EXPECT_LT(longestSend, kBound);
    EXPECT_LT(longestPastCleanup, kPastCleanupBound);
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= threadsBefore; }, 10000));
    EXPECT_TRUE(WaitUntil([&] { return DescriptorCount() <= descriptorsBefore; }, 10000));
  }
  auto ms = [](Clock::duration d) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
  };
  std::cout << "[ soak ] " << kRounds << " rounds of Cleanup under load: longest Cleanup "
            << ms(longestCleanup) << " ms, longest send " << ms(longestSend)
            << " ms, longest send past Cleanup " << ms(longestPastCleanup) << " ms; " << sent
            << " sends accepted, " << failed << " failed (" << sendsAfterCleanup
            << " of them after Cleanup)" << std::endl;
}

}  // namespace
