#ifndef QM_TESTS_SOAK_SOAK_SUPPORT_H
#define QM_TESTS_SOAK_SOAK_SUPPORT_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "driver_fixture.h"  // also the fake server's documents and the recording logger

using Clock = std::chrono::steady_clock;
using Reports = QmMessengerReportsMngrInterface;

// A handset's answer to the message with the hexadecimal id: option data
// ("N:Yes") or typed text, in the document shape of the OAP version.
inline std::string AnswerDoc(const std::string& hexId, const std::string& version, bool typed,
                             const std::string& value) {
  const std::string tag = version == "4.0" ? (typed ? "User_response>" : "Data_response>")
                                           : (typed ? "UserResponse>" : "DataResp>");
  const std::string element = "<" + tag + value + "</" + tag;
  return version == "4.0" ? Answer4(hexId, element) : OptionAnswer(hexId, element);
}
// A decimal tracking receipt as the hexadecimal id of the documents.
inline std::string Hex(const std::string& decimal) {
  return Hex(std::strtoul(decimal.c_str(), nullptr, 10));
}

// What the handset answers to message i (at i modulo 4) of the load and
// restart soaks, which offer "Yes" (kind 0), "Stop" (2) and "Escalate" (3):
// the status and text the host must then see.
struct Reaction {
  std::string value;
  bool typed;
  Reports::ReportsStatus status;
  std::string text;
};
inline const Reaction kReactions[4] = {
    {"N:Yes", false, Reports::REPLIED, "Yes"},
    {"F:Stop", false, Reports::REPLIED_SPECIAL_A, "Stop"},
    {"F:Escalate", false, Reports::REPLIED_SPECIAL_B, "Escalate"},
    {"On my way", true, Reports::REPLIED_WITH, "On my way"},
};
inline const Reaction& ReactionTo(int index) {
  return kReactions[index % 4];
}
// Hand-backs of a job as (status, text), in any order.
using Backs = std::multiset<std::pair<int, std::string>>;
// What message i is handed back as: delivered, then answered.
inline Backs ExpectedBacks(int index) {
  return {{Reports::DELIVERED, ""}, {ReactionTo(index).status, ReactionTo(index).text}};
}

// Counts for the soak runs: smaller under the sanitizers, which run every
// test many times slower.
#ifdef QM_SOAK_SANITIZED
const int kSoakScale = 2;
#else
const int kSoakScale = 1;
#endif

// The seed of a randomised soak: QM_SOAK_SEED when set (to replay a failed
// run), a fresh one otherwise.
inline unsigned SoakSeed() {
  const char* fixed = std::getenv("QM_SOAK_SEED");
  return fixed != nullptr ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10))
                          : static_cast<unsigned>(std::random_device()());
}

// Threads and open descriptors of this process, and its resident set in KiB.
size_t ThreadCount();
size_t DescriptorCount();
long ResidentKiB();

// The OAP server's pushes to the driver's listener, from a few threads
// while the test goes on: each thread writes the documents added, one after
// another, with `push`. Thread-safe.
class Pusher {
 public:
  using Push = std::function<void(const std::string&)>;
  Pusher(int threads, const Push& push);
  ~Pusher() { Stop(true); }
  void Add(std::string document);
  // Waits (at most `seconds`) until `count` documents were written; the
  // count written.
  size_t AwaitPushed(size_t count, int seconds);
  // Ends the threads once the queue is empty, or at once, dropping it.
  void Stop(bool drop);

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<std::string> m_documents;
  size_t m_pushed = 0;
  bool m_closing = false;
  std::vector<std::thread> m_threads;
};

// The OAP server side of the soak and fault tests, on 127.0.0.1. Unlike the
// fake server of the driver tests it keeps no requests and no thread per
// connection, so that ten thousand messages cost it nothing: eight threads
// (as many as the Cleanup soak's host threads) serve the connections, each
// one after another: read a request up to its closing tag, count the message
// it is about and answer class 1, code 200 under the request's id, unless a
// fault is set. Every connection ends well-mannered: half-close, then wait
// (bounded) until the driver has closed its end.
class LoopbackOapServer {
 public:
  // Listens on a free port.
  LoopbackOapServer();
  ~LoopbackOapServer() { Stop(); }
  void Stop();
  int Port() const { return m_port; }
  // Faults: a share of the requests (in percent, drawn at random) get no
  // answer until the driver gives up; with `garbage` the others get the
  // opening of a response, then noise.
  void SetFaults(int silentPercent, bool garbage) {
    m_silentShare = silentPercent;
    m_garbage = garbage;
  }
  // Whether requests are counted per message (a memory soak turns it off).
  void SetCounting(bool counting) { m_counting = counting; }
  // The requests about each message by its hexadecimal id: its own and the
  // updates of it that echo an answer on the handset.
  std::map<std::string, size_t> Requests();

 private:
  void Serve();
  void ServeOne(int fd);

  int m_listenFd = -1;
  int m_port = 0;
  std::atomic<bool> m_stop{false};
  std::atomic<bool> m_counting{true}, m_garbage{false};
  std::atomic<int> m_silentShare{0};
  std::mutex m_mutex;
  std::map<std::string, size_t> m_messages;
  std::vector<std::thread> m_threads;
};

// The driver test fixture set up on a free listener port, with a loopback
// server. Every test ends with a Cleanup that must return promptly and leave
// no thread behind (counted while the server still runs: its threads count,
// and a sanitizer's own thread starts with the first thread of the process).
class SoakDriverTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    if (HasFatalFailure()) return;
    if (!withLogger) driver->Logger = nullptr;
    ASSERT_TRUE(driver->Configure(settings));
    threadsBefore = ThreadCount();
    SetupOnFreePort();
  }

  void TearDown() override {
    if (driver != nullptr) {
      const Clock::time_point start = Clock::now();
      EXPECT_TRUE(driver->Cleanup());
      EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
      EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= threadsBefore; }, 10000));
    }
    server.Stop();
    DriverTest::TearDown();
  }

  // Addresses the job to the server's handset `handset`, interactive with
  // the choices "Yes" (kind 0), "Stop" (2) and "Escalate" (3).
  void Address(QmReferenceJob& job, const std::string& handset, const std::string& version) {
    DriverTest::Address(job, server.Port(), version);
    job.DeviceId = handset;
    job.IsInteractive = job.ExpectsResponse = true;
    job.ResponseChoices = {{0, "Yes", "", 0, 0}, {0, "Stop", "", 0, 2}, {0, "Escalate", "", 0, 3}};
  }

  size_t threadsBefore = 0;  // with the server's threads, before Setup
  LoopbackOapServer server;
  bool withLogger = true;
  // Given to Configure before Setup.
  std::map<std::string, std::string> settings;
};

#endif
