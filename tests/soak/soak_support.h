#ifndef QM_TESTS_SOAK_SOAK_SUPPORT_H
#define QM_TESTS_SOAK_SOAK_SUPPORT_H

#include <sys/resource.h>
#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "driver_fixture.h"  // also the fake server's documents and the recording logger

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

// A loopback connection to `port`, -1 when it cannot be made.
int ConnectLoopback(int port);
// Writes all of `text`; false when the connection failed.
bool WriteAll(int fd, const std::string& text);
// An OAP server's short connection: connect, write the document, close,
// without waiting for the driver.
bool PushShort(int port, const std::string& document);
// Lets this process open at least `count` descriptors; false when the hard
// limit is lower.
bool RaiseDescriptorLimit(rlim_t count);

// Threads of this process; the second waits (bounded) until they are at most
// `limit`, since ended threads leave on their own.
size_t ThreadCount();
// Open descriptors of this process.
size_t DescriptorCount();
size_t ThreadsAfterWaiting(size_t limit, int timeoutMs);
// Resident set size of this process in KiB.
long ResidentKiB();

// The OAP server side of the soak and fault tests, on 127.0.0.1. Unlike the
// fake server of the driver tests it keeps no requests and no thread per
// connection, so that ten thousand messages cost it nothing: a fixed number
// of threads (one unless told otherwise) serve the connections, each one
// after another: read a request up to its closing tag, count the message it
// is about and answer the way the mode says. Every connection ends
// well-mannered: half-close, then wait (bounded) until the driver has closed
// its end.
class LoopbackOapServer {
 public:
  enum class Mode {
    kAccept,     // class 1, code 200 under the request's id
    kSilent,     // nothing until the driver gives up
    kSplit,      // the first bytes of an acceptance; the rest once the driver closed
    kGarbage,    // the opening of a response, then noise
    kOversized,  // a valid acceptance padded past 64 KiB
  };

  explicit LoopbackOapServer(int threads = 1) : m_threadCount(threads) { Start(0); }
  ~LoopbackOapServer() { Stop(); }
  // Listens on the port (0: any free one); false when it cannot.
  bool Start(int port);
  // Connections are refused until the next Start.
  void Stop();
  int Port() const { return m_port; }
  void SetMode(Mode mode) { m_mode = mode; }
  // In kAccept mode, the share of requests (in percent, drawn at random)
  // that get no answer, as in kSilent.
  void SetSilentShare(int percent) { m_silentShare = percent; }
  // Whether requests are counted per message (the counts grow with every
  // message; a memory soak turns them off).
  void SetCounting(bool counting) { m_counting = counting; }
  // Messages seen, and requests that were about a message seen before (the
  // updates that echo an answer on the handset).
  size_t Messages();
  size_t Repeats();
  // Requests about the message with this hexadecimal id (its own and the
  // updates of it).
  size_t Requests(const std::string& hexId);
  // Forgets the counts. Host processes started within the same second draw
  // the same tracking numbers, so rounds of separate hosts count afresh.
  void ForgetRequests();

 private:
  void Serve();
  void ServeOne(int fd);

  int m_listenFd = -1;
  int m_port = 0;
  std::atomic<bool> m_stop{false};
  std::atomic<Mode> m_mode{Mode::kAccept};
  std::atomic<bool> m_counting{true};
  std::atomic<int> m_silentShare{0};
  const int m_threadCount;
  std::mutex m_mutex;
  std::map<std::string, size_t> m_messages;
  size_t m_requests = 0;
  std::vector<std::thread> m_threads;
};

// The driver test fixture set up on a free listener port, with a loopback
// server. Every test ends with a Cleanup that must return promptly and leave
// no thread behind (counted while the server still runs: its thread is one,
// and a sanitizer's own thread starts with the first thread of the process).
class SoakDriverTest : public DriverTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Addresses the job to the server's handset `handset`, with one choice
  // "Yes" of kind 0 (interactive) or none (plain).
  void Address(QmReferenceJob& job, const std::string& handset, const std::string& version,
               bool interactive);

  size_t threadsBefore = 0;  // with the server's thread, before Setup
  LoopbackOapServer server;
  bool withLogger = true;
  // Given to Configure before Setup.
  std::map<std::string, std::string> settings;
};

// A folder of its own under /tmp, removed with everything in it.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  std::string File(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

#endif
