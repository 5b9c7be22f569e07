// The message store under load. Restart: host processes (soak_host) that
// send interactive messages with a store file are killed with SIGKILL, and a
// new host process on the same store and port takes the delivery notices and
// answers for them and hands every job back, once per notice and answer.
// Memory: a million messages through a store limited to a tenth of them
// (scaled down unless QM_SOAK_FULL is set) leave memory and file size flat.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <memory>
#include <sstream>

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

// A soak_host process with a pipe to its input and one from its output;
// killed with SIGKILL, as a crash or an operator would, when it goes.
class HostProcess {
 public:
  explicit HostProcess(const std::vector<std::string>& args) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      std::vector<char*> argv;
      for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    m_input = in[1];
    m_output = out[0];
  }
  ~HostProcess() {
    Kill();
    CloseInput();
    close(m_output);
  }

  // The next line of output; false at its end or when nothing came for
  // `timeoutMs`.
  bool ReadLine(std::string* line, int timeoutMs = 60000) {
    line->clear();
    pollfd entry{m_output, POLLIN, 0};
    for (char c; poll(&entry, 1, timeoutMs) > 0 && read(m_output, &c, 1) == 1; *line += c) {
      if (c == '\n') return true;
    }
    return false;
  }
  // Reads up to the line `wanted`; false when it never came.
  bool Expect(const std::string& wanted) {
    std::string line;
    while (ReadLine(&line) && line != wanted) {
    }
    return line == wanted;
  }
  void Write(const std::string& text) {
    EXPECT_EQ(write(m_input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void CloseInput() {
    if (m_input >= 0) close(m_input);
    m_input = -1;
  }
  void Kill() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }
  // Its exit status after it ended by itself (within 30 s), -1 otherwise.
  int Wait() {
    int status = -1;
    const bool ended = WaitUntil([&] { return waitpid(m_pid, &status, WNOHANG) != 0; }, 30);
    if (!ended) Kill();
    m_pid = -1;
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t m_pid = -1;
  int m_input = -1, m_output = -1;
};

// Host processes on one store file and one listener port, and the OAP
// server's pushes of the planned documents to them.
class RestartSoakTest : public ::testing::Test {
 protected:
  struct Document {
    int index;
    std::string text;
    bool answer;
  };

  std::vector<std::string> Args(const std::string& mode) {
    return {QM_SOAK_HOST_PATH, QM_DRIVER_PATH, store, std::to_string(listenerPort), mode};
  }

  std::unique_ptr<Pusher> StartPushing() {
    const int port = listenerPort;
    auto pusher = std::make_unique<Pusher>(
        kPushers, [port](const std::string& text) { return SendInbound(port, text); });
    for (const Document& document : documents) pusher->Add(document.text);
    return pusher;
  }

  TempFolder folder;
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
    store = folder.File("state-" + std::to_string(round) + ".db");
    server.ForgetRequests();
    // The receipts of the sends that returned, also those reported just
    // before the kill.
    std::map<int, std::string> sent;
    {
      std::vector<std::string> args = Args("send");
      args.insert(args.end(), {std::to_string(server.Port()), std::to_string(kMessages)});
      HostProcess host(args);
      const size_t killAfter = 1 + rng() % kMessages;
      bool killed = false;
      for (std::string line; host.ReadLine(&line, killed ? 1000 : 60000);) {
        std::istringstream words(line);
        std::string word, receipt;
        int index = 0;
        if (words >> word >> index >> receipt && word == "sent") sent[index] = receipt;
        if (!killed && (sent.size() >= killAfter || line == "done")) {
          host.Kill();
          killed = true;
        }
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
      HostProcess host(Args("collect"));  // of no job: it only takes answers
      host.Write("end\n");
      ASSERT_TRUE(host.Expect("ready"));
      auto pusher = StartPushing();
      pusher->AwaitPushed(rng() % documents.size(), 120);
      host.Kill();
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

    HostProcess host(Args("collect"));
    std::string input;
    for (const auto& [index, receipt] : sent) input += std::to_string(index) + " " + receipt + "\n";
    host.Write(input + "end\n");
    EXPECT_TRUE(host.Expect("ready"));
    StartPushing()->Stop(false);
    std::map<int, Backs> backs;
    std::string line;
    while (host.ReadLine(&line, 90000) && line != "finished") {
      std::istringstream words(line);
      std::string word, text;
      int index = 0, status = 0;
      if (words >> word >> index >> status && word == "back") {
        std::getline(words >> std::ws, text);
        backs[index].insert({status, text});
      }
    }
    EXPECT_EQ(line, "finished");
    host.CloseInput();
    EXPECT_EQ(host.Wait(), 0);
    size_t complete = 0;
    for (const auto& [index, receipt] : sent) {
      EXPECT_EQ(backs[index], ExpectedBacks(index)) << "job r" << index << ", receipt " << receipt;
      complete += backs[index] == ExpectedBacks(index) ? 1 : 0;
    }
    EXPECT_EQ(backs.size(), sent.size());
    std::cout << "[ soak ] " << sent.size() << " jobs sent, " << complete
              << " handed back complete after the restart" << std::endl;
  }
}

// Messages sent through a store file limited to a tenth of them, with the
// shortest retention: once the limit is reached the resident set and the
// store file stay flat. (The store in memory is swept by the same code.)
class StoreMemorySoakTest : public SoakDriverTest {
 protected:
  void SetUp() override {
    withLogger = false;  // the resident set then measures the driver's own state
    settings = {{"MessageStore", folder.File("state.db")},
                {"MessageRetentionMinutes", "1"},
                {"MessageStoreLimit", std::to_string(kLimit)}};
    SoakDriverTest::SetUp();
  }
  // The size of the store file, or of its write-ahead log.
  long StoreKiB(const char* suffix = "") {
    struct stat info {};
    return stat(folder.File(std::string("state.db") + suffix).c_str(), &info) == 0
               ? info.st_size / 1024
               : 0;
  }

  TempFolder folder;
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
