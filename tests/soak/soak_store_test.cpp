// The message store under load. Restart: host processes (soak_host) that
// send interactive messages with a store file are killed with SIGKILL, and a
// new host process on the same store and port takes the delivery notices and
// answers for them and hands every job back, once per notice and answer.
// Memory: a million messages through a store limited to a tenth of them
// (scaled down unless QM_SOAK_FULL is set) leave memory and file size flat.
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <sstream>

#include "../../runtime/tests/log_test_util.h"
#include "../../tools/oapsim/tests/child_process.h"
#include "soak_support.h"

namespace {

const int kMessages = 2000 / kSoakScale;
const int kRandomRounds = kSoakScale == 1 ? 3 : 2;
// The memory soak: a tenth of the messages under the sanitizers, and ten
// times as many with QM_SOAK_FULL.
const int kStoreMessages =
    (std::getenv("QM_SOAK_FULL") != nullptr ? 1000000 : 100000) / (kSoakScale == 1 ? 1 : 10);
const int kLimit = kStoreMessages / 10;
const int kPushers = 4;

// A host killed at a random moment while sending, and the next host killed
// at a random moment while it takes the answers: a last host hands every job
// whose send returned back once delivered and once with its answer, with
// every answer that reached the store (the ones whose echo the server saw);
// the server delivers the others again to the last host.
TEST(RestartSoakTest, KilledAtRandomMomentsWhileSendingAndAnswering) {
  const unsigned seed = SoakSeed();
  std::cout << "[ soak ] seed " << seed << std::endl;
  std::mt19937 rng(seed);
  LogTempDir folder;
  const int listenerPort = UnusedPort();
  for (int round = 0; round < kRandomRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    // A file of its own: the killed host leaves its write-ahead log behind.
    const std::string store = folder.file("state-" + std::to_string(round) + ".db");
    // A server of its own: hosts started within the same second draw the
    // same tracking numbers, so each round counts afresh.
    LoopbackOapServer server;
    // A soak_host process on the store and port, killed with SIGKILL (as a
    // crash or an operator would) when it goes.
    const auto startHost = [&](std::vector<std::string> args) {
      args.insert(args.begin(), {QM_DRIVER_PATH, store, std::to_string(listenerPort)});
      return ChildProcess(QM_SOAK_HOST_PATH, args);
    };
    // (the message's hexadecimal id for an answer, "" for a notice; the text)
    std::vector<std::pair<std::string, std::string>> documents;
    const auto startPushing = [&] {
      auto pusher = std::make_unique<Pusher>(
          kPushers, [&](const std::string& text) { SendInbound(listenerPort, text); });
      for (const auto& document : documents) pusher->Add(document.second);
      return pusher;
    };
    ChildProcess sender =
        startHost({"send", std::to_string(server.Port()), std::to_string(kMessages)});
    const size_t killAfter = 1 + rng() % kMessages;
    // Killed after a random number of sends returned (or 20 s after the last).
    for (size_t n = 0; n < killAfter && sender.WaitFor("sent") != ""; ++n) {
    }
    sender.Signal(SIGKILL);
    sender.Finish();                  // with the sends reported just before the kill
    std::map<int, std::string> sent;  // the receipts of the sends that returned
    std::istringstream words(sender.out);
    for (std::string word, receipt; words >> word;) {
      int index = 0;
      if (word == "sent" && words >> index >> receipt) sent[index] = receipt;
    }
    ASSERT_FALSE(sent.empty());
    // The delivery notice and the answer of every message, in random order.
    for (const auto& [index, receipt] : sent) {
      const Reaction& reaction = ReactionTo(index);
      const std::string hexId = Hex(receipt);
      documents.push_back({"", ResponseDoc(hexId, 3, 200)});
      const std::string version = index % 2 ? "4.0" : "3.0";
      documents.push_back({hexId, AnswerDoc(hexId, version, reaction.typed, reaction.value)});
    }
    std::shuffle(documents.begin(), documents.end(), rng);
    {
      ChildProcess host = startHost({"collect"});  // of no job: it only takes answers
      host.Send("end\n");
      ASSERT_NE(host.WaitFor("ready"), "");
      auto pusher = startPushing();
      pusher->AwaitPushed(rng() % documents.size(), 120);
      host.Signal(SIGKILL);
    }
    // The last host gets the notices again and the answers not yet echoed.
    auto requests = server.Requests();
    const size_t planned = documents.size();
    auto stored = [&](const auto& doc) { return !doc.first.empty() && requests[doc.first] >= 2; };
    documents.erase(std::remove_if(documents.begin(), documents.end(), stored), documents.end());
    std::cout << "[ soak ] the host taking answers was killed; " << documents.size() << " of "
              << planned << " documents go to the next one" << std::endl;

    ChildProcess host = startHost({"collect"});
    std::string input;
    for (const auto& [index, receipt] : sent) input += std::to_string(index) + " " + receipt + "\n";
    host.Send(input + "end\n");
    EXPECT_NE(host.WaitFor("ready"), "");
    startPushing()->Stop(false);
    std::map<int, Backs> backs;
    for (std::string line; (line = host.WaitFor("")) != "" && line != "finished";) {
      int index = 0, status = 0, text = 0;  // "back I STATUS TEXT"; TEXT may be empty
      if (std::sscanf(line.c_str(), "back %d %d %n", &index, &status, &text) == 2)
        backs[index].insert({status, line.substr(static_cast<size_t>(text))});
    }
    host.Send("end\n");
    EXPECT_EQ(host.Finish(), 0);
    size_t complete = 0;
    for (const auto& [index, receipt] : sent) {
      EXPECT_EQ(backs[index], ExpectedBacks(index)) << "job r" << index << ", receipt " << receipt;
      complete += backs[index] == ExpectedBacks(index) ? 1 : 0;
    }
    std::cout << "[ soak ] " << sent.size() << " jobs sent, " << complete
              << " handed back complete after the restart" << std::endl;
  }
}

// Messages sent through a store file limited to a tenth of them, with the
// shortest retention: once the limit is reached the resident set and the
// store file stay flat. (The store in memory is swept by the same code.)
class StoreMemorySoakTest : public SoakDriverTest {
 protected:
  StoreMemorySoakTest() {
    withLogger = false;  // the resident set then measures the driver's own state
    settings = {{"MessageStore", folder.file("state.db")},
                {"MessageRetentionMinutes", "1"},
                {"MessageStoreLimit", std::to_string(kLimit)}};
  }
  // The size of the store file, or of its write-ahead log.
  long StoreKiB(const char* suffix = "") {
    struct stat info {};
    return stat(folder.file(std::string("state.db") + suffix).c_str(), &info) == 0
               ? info.st_size / 1024
               : 0;
  }

  LogTempDir folder;
};

TEST_F(StoreMemorySoakTest, MemoryAndFileStayFlatBeyondTheLimit) {
  const int hosts = 4, samples = 8;
  server.SetCounting(false);
  std::atomic<int> next{0}, failed{0};
  std::mutex mutex;
  std::vector<long> resident, file, log;  // KiB at each sample: the store file and its log
  const Clock::time_point started = Clock::now();
  std::vector<std::thread> senders;
  for (int t = 0; t < hosts; ++t) {
    senders.emplace_back([&] {
      QmReferenceJob job;
      Address(job, "4711", "3.0");
      for (int i; (i = next++) < kStoreMessages;) {
        Status status;
        if (!driver->SendAMessage(&job, status)) ++failed;
        // Sampled from three times the limit on, when the sweeps have
        // caught up with the first overshoot.
        const int step = (kStoreMessages - 3 * kLimit) / samples;
        std::lock_guard<std::mutex> guard(mutex);
        if (i >= 3 * kLimit && (i - 3 * kLimit) % step == 0) {
          resident.push_back(ResidentKiB());
          file.push_back(StoreKiB());
          log.push_back(StoreKiB("-wal"));
        }
      }
    });
  }
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(failed.load(), 0);
  ASSERT_GE(resident.size(), 2u);
  auto most = [](const std::vector<long>& kib) {
    return *std::max_element(kib.begin(), kib.end());
  };
  std::cout << "[ soak ] " << kStoreMessages << " messages, limit " << kLimit << ", file store, "
            << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count()
            << " s; resident set " << resident.front() << " KiB then at most " << most(resident)
            << " KiB; store file " << file.front() << " KiB then at most " << most(file)
            << " KiB, its log at most " << most(log) << " KiB" << std::endl;
#ifndef QM_SOAK_SANITIZED
  // The address checker keeps freed memory in quarantine.
  EXPECT_LE(most(resident), resident.front() * 11 / 10);
#endif
  EXPECT_LE(most(file), file.front() * 11 / 10);
  // The log grows between sweeps and is moved into the file at the latest
  // after 16,384 pages of 1 KiB (with their frame headers).
  EXPECT_LE(most(log), 16384 * (1024 + 24) / 1024 + 64);
}

}  // namespace
