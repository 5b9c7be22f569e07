// The message store under load. Restart: host processes (soak_host) that
// send interactive messages with a store file are killed with SIGKILL, and a
// new host process on the same store and port takes the delivery notices and
// answers for them and hands every job back, once per notice and answer.
// Memory: a million messages through a store limited to a tenth of them
// (scaled down unless QM_SOAK_FULL is set) leave memory and file size flat.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "soak_support.h"

namespace {

using Clock = std::chrono::steady_clock;
using Reports = QmMessengerReportsMngrInterface;

#ifdef QM_SOAK_SANITIZED
// Sanitizer builds run several times slower.
const int kMessages = 1000;
const int kRandomRounds = 2;
const int kScale = 10;
#else
const int kMessages = 2000;
const int kRandomRounds = 3;
const int kScale = 1;
#endif
const int kPushers = 4;

// A soak_host process with a pipe to its input and one from its output.
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
    if (m_output >= 0) close(m_output);
  }

  // The next line of output; false at its end or after the time-out.
  bool ReadLine(std::string* line, int timeoutMs = 60000) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
      const size_t end = m_buffer.find('\n');
      if (end != std::string::npos) {
        *line = m_buffer.substr(0, end);
        m_buffer.erase(0, end + 1);
        return true;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd entry{m_output, POLLIN, 0};
      char chunk[4096];
      ssize_t got = 0;
      if (left <= 0 || poll(&entry, 1, static_cast<int>(left)) <= 0 ||
          (got = read(m_output, chunk, sizeof chunk)) <= 0) {
        return false;
      }
      m_buffer.append(chunk, static_cast<size_t>(got));
    }
  }
  bool Expect(const std::string& wanted) {
    std::string line;
    while (ReadLine(&line)) {
      if (line == wanted) return true;
    }
    return false;
  }
  void Write(const std::string& text) {
    if (write(m_input, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      ADD_FAILURE() << "cannot write to the host";
    }
  }
  void CloseInput() {
    if (m_input >= 0) close(m_input);
    m_input = -1;
  }
  // Ends it with SIGKILL, as a crash or an operator would.
  void Kill() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }
  // Its exit status after it ended by itself (bounded).
  int Wait() {
    int status = -1;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
    while (m_pid > 0 && waitpid(m_pid, &status, WNOHANG) == 0 && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (Clock::now() >= deadline) Kill();
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t m_pid = -1;
  int m_input = -1, m_output = -1;
  std::string m_buffer;
};

// What the handset answers to message i, and what the host must see.
struct Answer {
  std::string value;
  bool typed;
  Reports::ReportsStatus status;
  std::string text;
};
const Answer& AnswerFor(int index) {
  static const Answer answers[] = {{"N:Yes", false, Reports::REPLIED, "Yes"},
                                   {"F:Stop", false, Reports::REPLIED_SPECIAL_A, "Stop"},
                                   {"On my way", true, Reports::REPLIED_WITH, "On my way"}};
  return answers[index % 3];
}

class RestartSoakTest : public ::testing::Test {
 protected:
  std::vector<std::string> Args(const std::string& mode) {
    return {QM_SOAK_HOST_PATH, QM_DRIVER_PATH, store, std::to_string(listenerPort), mode};
  }

  // Sends kMessages from a host that is killed after `killAfter` of them
  // were sent (or after all); the receipts of the sends that returned.
  std::map<int, std::string> SendThenKill(int killAfter) {
    std::vector<std::string> args = Args("send");
    args.push_back(std::to_string(server.Port()));
    args.push_back(std::to_string(kMessages));
    HostProcess host(args);
    std::map<int, std::string> sent;
    std::string line;
    while (static_cast<int>(sent.size()) < killAfter && host.ReadLine(&line) && line != "done") {
      std::istringstream words(line);
      std::string word, receipt;
      int index = 0;
      if (words >> word >> index >> receipt && word == "sent") sent[index] = receipt;
    }
    host.Kill();
    // Lines written before the end count: their sends had returned.
    while (host.ReadLine(&line, 1000)) {
      std::istringstream words(line);
      std::string word, receipt;
      int index = 0;
      if (words >> word >> index >> receipt && word == "sent") sent[index] = receipt;
    }
    return sent;
  }

  // The delivery notice and the answer of every message, in random order.
  void Plan(const std::map<int, std::string>& sent, std::mt19937& rng) {
    documents.clear();
    for (const auto& entry : sent) {
      const std::string hexId = Hex(entry.second);
      const Answer& answer = AnswerFor(entry.first);
      documents.push_back({entry.first, ResponseDoc(hexId, 3, 200), false});
      documents.push_back(
          {entry.first,
           AnswerDoc(hexId, entry.first % 2 ? "4.0" : "3.0", answer.typed, answer.value), true});
    }
    std::shuffle(documents.begin(), documents.end(), rng);
  }

  // Pushes the planned documents from a few threads until they are all
  // written or `stop` returns true.
  void Push(const std::function<bool(size_t pushed)>& stop) {
    std::mutex mutex;
    size_t next = 0, pushed = 0;
    std::vector<std::thread> pushers;
    for (int t = 0; t < kPushers; ++t) {
      pushers.emplace_back([&] {
        for (;;) {
          size_t mine = 0;
          {
            std::lock_guard<std::mutex> guard(mutex);
            if (next == documents.size() || stop(pushed)) return;
            mine = next++;
          }
          const bool written = SendInbound(listenerPort, documents[mine].text);
          std::lock_guard<std::mutex> guard(mutex);
          pushed += written ? 1 : 0;
        }
      });
    }
    for (std::thread& pusher : pushers) pusher.join();
  }

  // A new host collects: pushes what is left and queries every sent job.
  // Returns the hand-backs per message.
  std::map<int, std::multiset<std::pair<int, std::string>>> Collect(
      const std::map<int, std::string>& sent) {
    HostProcess host(Args("collect"));
    std::string input;
    for (const auto& entry : sent) input += std::to_string(entry.first) + " " + entry.second + "\n";
    host.Write(input + "end\n");
    EXPECT_TRUE(host.Expect("ready"));
    Push([](size_t) { return false; });
    std::map<int, std::multiset<std::pair<int, std::string>>> backs;
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
    return backs;
  }

  // Every job whose send returned is handed back once delivered and once
  // with its answer: nothing lost, nothing twice.
  void ExpectEveryJobBackOnce(
      const std::map<int, std::string>& sent,
      const std::map<int, std::multiset<std::pair<int, std::string>>>& backs) {
    size_t complete = 0;
    for (const auto& entry : sent) {
      const Answer& answer = AnswerFor(entry.first);
      const std::multiset<std::pair<int, std::string>> expected{{Reports::DELIVERED, ""},
                                                                {answer.status, answer.text}};
      auto found = backs.find(entry.first);
      const bool same = found != backs.end() && found->second == expected;
      complete += same ? 1 : 0;
      std::string got;
      if (found != backs.end()) {
        for (const auto& back : found->second)
          got += " " + std::to_string(back.first) + ":" + back.second;
      }
      EXPECT_TRUE(same) << "job r" << entry.first << " (receipt " << entry.second
                        << ") handed back:" << got;
    }
    EXPECT_EQ(backs.size(), sent.size());
    std::cout << "[ soak ] " << sent.size() << " jobs sent, " << complete
              << " handed back complete after the restart" << std::endl;
  }

  struct Document {
    int index;
    std::string text;
    bool answer;
  };

  TempFolder folder;
  std::string store = folder.File("state.db");
  LoopbackOapServer server;
  int listenerPort = UnusedPort();
  std::vector<Document> documents;
};

TEST_F(RestartSoakTest, KilledAfterSendingEveryJobComesBack) {
  const std::map<int, std::string> sent = SendThenKill(kMessages);
  ASSERT_EQ(sent.size(), static_cast<size_t>(kMessages));
  std::mt19937 rng(1);
  Plan(sent, rng);
  ExpectEveryJobBackOnce(sent, Collect(sent));
}

// Killed at a random moment while sending, and the next host killed at a
// random moment while it takes the answers: every job whose send returned
// comes back, with every answer that reached the store (the ones whose echo
// the server saw); the server delivers the others again to the last host.
TEST_F(RestartSoakTest, KilledAtRandomMomentsWhileSendingAndAnswering) {
  const unsigned seed = SoakSeed();
  std::cout << "[ soak ] seed " << seed << std::endl;
  std::mt19937 rng(seed);
  for (int round = 0; round < kRandomRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    // A file of its own: the killed host leaves its write-ahead log behind.
    store = folder.File("state-" + std::to_string(round) + ".db");
    server.ForgetRequests();
    const std::map<int, std::string> sent = SendThenKill(1 + static_cast<int>(rng() % kMessages));
    ASSERT_FALSE(sent.empty());
    Plan(sent, rng);
    {
      HostProcess host(Args("listen"));
      ASSERT_TRUE(host.Expect("ready"));
      const size_t killAt = rng() % documents.size();
      std::atomic<bool> killed{false};
      Push([&](size_t pushed) {
        if (pushed >= killAt && !killed.exchange(true)) host.Kill();
        return killed.load();
      });
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
    ExpectEveryJobBackOnce(sent, Collect(sent));
  }
}

// Messages sent through a store limited to a tenth of them, with the
// shortest retention: once the limit is reached the resident set (and the
// store file) stay flat, and the oldest messages are forgotten.
class StoreMemorySoakTest : public SoakDriverTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    withLogger = false;  // the resident set then measures the driver's own state
    settings = {{"MessageStore", GetParam() ? folder.File("state.db") : "memory"},
                {"MessageRetentionMinutes", "1"},
                {"MessageStoreLimit", std::to_string(Limit())}};
    SoakDriverTest::SetUp();
  }
  static bool Full() { return std::getenv("QM_SOAK_FULL") != nullptr; }
  static int Messages() { return (Full() ? 1000000 : 100000) / kScale; }
  static int Limit() { return Messages() / 10; }
  // The size of the store file, or of its write-ahead log.
  long StoreKiB(const char* suffix = "") {
    struct stat info {};
    return stat(folder.File(std::string("state.db") + suffix).c_str(), &info) == 0
               ? info.st_size / 1024
               : 0;
  }

  TempFolder folder;
};

TEST_P(StoreMemorySoakTest, MemoryAndFileStayFlatBeyondTheLimit) {
  const int hosts = 4, samples = 8;
  server.SetCounting(false);
  std::atomic<int> next{0}, failed{0};
  std::mutex mutex;
  std::vector<std::pair<long, long>> sizes;  // resident set, store file (KiB)
  long maxLog = 0;                           // the write-ahead log (KiB)
  std::string firstReceipt;
  const Clock::time_point started = Clock::now();
  std::vector<std::thread> senders;
  for (int t = 0; t < hosts; ++t) {
    senders.emplace_back([&] {
      QmReferenceJob job;
      Address(job, "4711", "3.0", true);
      for (int i; (i = next++) < Messages();) {
        Status status;
        if (!driver->SendAMessage(&job, status)) ++failed;
        // Sampled from three times the limit on, when the sweeps have
        // caught up with the first overshoot.
        const int step = (Messages() - 3 * Limit()) / samples;
        std::lock_guard<std::mutex> guard(mutex);
        if (i == 0) firstReceipt = job.GetTrackingReceipt();
        if (i >= 3 * Limit() && (i - 3 * Limit()) % step == 0) {
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
  std::cout << "[ soak ] " << Messages() << " messages, limit " << Limit() << ", "
            << (GetParam() ? "file" : "memory") << " store, "
            << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count()
            << " s; resident set " << sizes.front().first << " KiB then at most " << maxResident
            << " KiB; store file " << sizes.front().second << " KiB then at most " << maxFile
            << " KiB, its log at most " << maxLog << " KiB" << std::endl;
#ifndef QM_SOAK_SANITIZED
  // The address checker keeps freed memory in quarantine.
  EXPECT_LE(maxResident, sizes.front().first * 11 / 10);
#endif
  if (GetParam()) {
    EXPECT_LE(maxFile, sizes.front().second * 11 / 10);
    // The log grows between sweeps and is moved into the file at the
    // latest after 16,384 pages of 1 KiB (with their frame headers).
    EXPECT_LE(maxLog, 16384 * (1024 + 24) / 1024 + 64);
  }
  // The first message went with the limit, the last one is still known.
  QmReferenceJob first;
  Address(first, "4711", "3.0", true);
  first.TrackingReceipt = firstReceipt;
  Status status;
  driver->Send2WayRespQuery(&first, status);
  EXPECT_EQ(first.GetErrorText(), "Unknown Device");
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreMemorySoakTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "File" : "Memory";
                         });

}  // namespace
