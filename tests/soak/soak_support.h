#ifndef QM_TESTS_SOAK_SOAK_SUPPORT_H
#define QM_TESTS_SOAK_SOAK_SUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QmDriverLoader.h"
#include "QmLogInterface.h"
#include "QmReferenceJob.h"
#include "QmReferenceReportsManager.h"

// Documents the OAP server sends: responses, and the answers it pushes to
// the driver's listener.
std::string ResponseDoc(const std::string& hexId, int type, int code);
std::string AnswerDoc(const std::string& hexId, const std::string& version, bool typed,
                      const std::string& value);
// A decimal tracking receipt as the hexadecimal id of the documents.
std::string Hex(const std::string& decimal);

// Threads of this process; the second waits (bounded) until they are at most
// `limit`, since ended threads leave on their own.
size_t ThreadCount();
size_t ThreadsAfterWaiting(size_t limit, int timeoutMs);
// Resident set size of this process in KiB.
long ResidentKiB();

// The OAP server side of the soak and fault tests, on 127.0.0.1. One thread
// serves the connections one after another: it reads a request up to its
// closing tag, counts the message it is about and answers the way the mode
// says. Every connection ends well-mannered: half-close, then wait (bounded)
// until the driver has closed its end.
class LoopbackOapServer {
 public:
  enum class Mode {
    kAccept,     // class 1, code 200 under the request's id
    kSilent,     // nothing until the driver gives up
    kSplit,      // the first bytes of an acceptance; the rest once the driver closed
    kGarbage,    // the opening of a response, then noise
    kOversized,  // a valid acceptance padded past 2000 bytes
  };

  LoopbackOapServer() { Start(0); }
  ~LoopbackOapServer() { Stop(); }
  // Listens on the port (0: any free one); false when it cannot.
  bool Start(int port);
  // Connections are refused until the next Start.
  void Stop();
  int Port() const { return m_port; }
  void SetMode(Mode mode) { m_mode = mode; }
  // Messages seen, and requests that were about a message seen before (the
  // updates that echo an answer on the handset).
  size_t Messages();
  size_t Repeats();

 private:
  void Serve();
  void ServeOne(int fd);

  int m_listenFd = -1;
  int m_port = 0;
  std::atomic<bool> m_stop{false};
  std::atomic<Mode> m_mode{Mode::kAccept};
  std::mutex m_mutex;
  std::map<std::string, size_t> m_messages;
  size_t m_requests = 0;
  std::thread m_thread;
};

// Keeps every line the driver writes; safe for the listener's threads.
class SoakLogger : public QmLogInterface {
 public:
  // Lines at the level that contain the text.
  size_t Count(LogLevel level, const std::string& part);

#define QM_SOAK_WRITE(Name, Level)                             \
  bool Name(const std::string& m, int, const char*) override { \
    return Add(Level, m);                                      \
  }
  QM_SOAK_WRITE(WriteTrace, LEVEL_TRACE)
  QM_SOAK_WRITE(WriteDebug, LEVEL_DEBUG)
  QM_SOAK_WRITE(WriteInfo, LEVEL_INFO)
  QM_SOAK_WRITE(WriteWarn, LEVEL_WARN)
  QM_SOAK_WRITE(WriteError, LEVEL_ERROR)
  QM_SOAK_WRITE(WriteCritical, LEVEL_CRITICAL)
  QM_SOAK_WRITE(WriteFatal, LEVEL_FATAL)
#undef QM_SOAK_WRITE
  void EnableThreadIdPrefix(bool) override {}
  LogLevel GetLogLevel() override {
    return LEVEL_TRACE;
  }
  std::string GetLoggerName() override {
    return "soak";
  }

 private:
  bool Add(LogLevel level, const std::string& text);

  std::mutex m_mutex;
  std::vector<std::pair<LogLevel, std::string>> m_lines;
};

// The plug-in loaded as a host loads it, its driver wired to a logger, a
// queue and a reports manager, and set up on a free listener port. Every test
// ends with a Cleanup that must return promptly and leave no thread behind
// (counted while the server still runs: its thread is one, and a sanitizer's
// own thread starts with the first thread of the process).
class SoakDriverTest : public ::testing::Test {
 protected:
  using Status = QmMessengerReportsMngrInterface::ReportsStatus;

  void SetUp() override;
  void TearDown() override;
  void SetupOnFreePort();
  // Addresses the job to the server's handset `handset`, with one choice
  // "Yes" of kind 0 (interactive) or none (plain).
  void Address(QmReferenceJob& job, const std::string& handset, const std::string& version,
               bool interactive);
  std::vector<QmMessageFile*> DrainQueue();

  size_t threadsBefore = 0;  // with the server's thread, before Setup
  LoopbackOapServer server;
  QmDriverLoader loader;
  QmProtocolDriverInterface* driver = nullptr;
  SoakLogger logger;
  bool withLogger = true;
  QmMessageQueue queue;
  QmReferenceReportsManager reports;
  int listenerPort = 0;
};

#endif
