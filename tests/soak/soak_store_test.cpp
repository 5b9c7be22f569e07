// The message store under load. Restart: host processes (soak_host) that
// send interactive messages with a store file are killed with SIGKILL, and a
// new host process on the same store and port takes the delivery notices and
// answers for them and hands every job back, once per notice and answer.
// Memory: a million messages through a store limited to a tenth of them
// (scaled down unless QM_SOAK_FULL is set) leave memory and file size flat.
#include <signal.h>
#include <sys/stat.h>

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

// Host processes on one store file and one listener port, and the OAP
// server's pushes of the planned documents to them.
class RestartSoakTest : public ::testing::Test {
 protected:
  struct Document {
    int index;
    std::string text;
    bool answer;
  };

  // A soak_host process on the store and port, killed with SIGKILL (as a
  // crash or an operator would) when it goes.
  ChildProcess StartHost(std::vector<std::string> args) {
    args.insert(args.begin(), {QM_DRIVER_PATH, store, std::to_string(listenerPort)});
    return ChildProcess(QM_SOAK_HOST_PATH, args);
  }

  std::unique_ptr<Pusher> StartPushing() {
    const int port = listenerPort;
    auto pusher = std::make_unique<Pusher>(
        kPushers, [port](const std::string& text) { return SendInbound(port, text); });
    for (const Document& document : documents) pusher->Add(document.text);
    return pusher;
  }

  LogTempDir folder;
  std::string store;
  LoopbackOapServer server;
  int listenerPort = UnusedPort();
  std::vector<Document> documents;
};

// A host killed at a random moment while sending, and the next host killed
// at a random moment while it takes the answers: a last host hands every job
// whose send returned back once delivered and once with its answer, with
// every answer that reached the store (the ones whose echo the server saw);
// the server delivers the others again to the last host.
TEST_F(RestartSoakTest, KilledAtRandomMomentsWhileSendingAndAnswering) {
  const unsigned seed = SoakSeed();
  std::cout << "[ soak ] seed " << seed << std::endl;
  std::mt19937 rng(seed);
  for (int round = 0; round < kRandomRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    // A file of its own: the killed host leaves its write-ahead log behind.
    store = folder.file("state-" + std::to_string(round) + ".db");
    server.ForgetRequests();
    std::map<int, std::string> sent;  // the receipts of the sends that returned
    {
      ChildProcess host =
          StartHost({"send", std::to_string(server.Port()), std::to_string(kMessages)});
      const size_t killAfter = 1 + rng() % kMessages;
      for (size_t lines = 0; lines < killAfter; ++lines) {
        const std::string line = host.WaitFor("");
        if (line.empty() || line == "done") break;
      }
      host.Signal(SIGKILL);
      host.Finish();  // with the sends reported just before the kill
      std::istringstream words(host.out);
      for (std::string word, receipt; words >> word;) {
        int index = 0;
        if (word == "sent" && words >> index >> receipt) sent[index] = receipt;
      }
    }
    ASSERT_FALSE(sent.empty());
    // The delivery notice and the answer of every message, in random order.
    documents.clear();
    for (const auto& [index, receipt] : sent) {
      const Reaction& reaction = ReactionTo(index);
      documents.push_back({index, ResponseDoc(Hex(receipt), 3, 200), false});
      documents.push_back(
          {index,
           AnswerDoc(Hex(receipt), index % 2 ? "4.0" : "3.0", reaction.typed, reaction.value),
           true});
    }
    std::shuffle(documents.begin(), documents.end(), rng);
    {
      ChildProcess host = StartHost({"collect"});  // of no job: it only takes answers
      host.Send("end\n");
      ASSERT_NE(host.WaitFor("ready"), "");
      auto pusher = StartPushing();
      pusher->AwaitPushed(rng() % documents.size(), 120);
      host.Signal(SIGKILL);
    }
    // The last host gets the notices again and the answers not yet echoed.
    std::vector<Document> left;
    for (const Document& document : documents) {
      if (!document.answer || server.Requests(Hex(sent.at(document.index))) < 2) {
        left.push_back(document);
      }
    }
    std::cout << "[ soak ] the host taking answers was killed; " << left.size() << " of "
              << documents.size() << " documents go to the next one" << std::endl;
    documents.swap(left);

    ChildProcess host = StartHost({"collect"});
    std::string input;
    for (const auto& [index, receipt] : sent) input += std::to_string(index) + " " + receipt + "\n";
    host.Send(input + "end\n");
    EXPECT_NE(host.WaitFor("ready"), "");
    StartPushing()->Stop(false);
    std::map<int, Backs> backs;
    std::string line;
    while ((line = host.WaitFor("")) != "" && line != "finished") {
      std::istringstream words(line);
      std::string word, text;
      int index = 0, status = 0;
      if (words >> word >> index >> status && word == "back") {
        std::getline(words >> std::ws, text);
        backs[index].insert({status, text});
      }
    }
    EXPECT_EQ(line, "finished");
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
  std::vector<std::pair<long, long>> sizes;  // resident set, store file (KiB)
  long maxLog = 0;                           // the write-ahead log (KiB)
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
          sizes.emplace_back(ResidentKiB(), StoreKiB());
          maxLog = std::max(maxLog, StoreKiB("-wal"));
        }
      }
    });
  }
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(failed.load(), 0);
  ASSERT_GE(sizes.size(), 2u);
  long maxResident = 0, maxFile = 0;
  for (const auto& size : sizes) {
    maxResident = std::max(maxResident, size.first);
    maxFile = std::max(maxFile, size.second);
  }
  std::cout << "[ soak ] " << kStoreMessages << " messages, limit " << kLimit << ", file store, "
            << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count()
            << " s; resident set " << sizes.front().first << " KiB then at most " << maxResident
            << " KiB; store file " << sizes.front().second << " KiB then at most " << maxFile
            << " KiB, its log at most " << maxLog << " KiB" << std::endl;
#ifndef QM_SOAK_SANITIZED
  // The address checker keeps freed memory in quarantine.
  EXPECT_LE(maxResident, sizes.front().first * 11 / 10);
#endif
  EXPECT_LE(maxFile, sizes.front().second * 11 / 10);
  // The log grows between sweeps and is moved into the file at the latest
  // after 16,384 pages of 1 KiB (with their frame headers).
  EXPECT_LE(maxLog, 16384 * (1024 + 24) / 1024 + 64);
}

}  // namespace
