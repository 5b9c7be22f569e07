#ifndef QM_OAP_TESTS_DRIVER_FIXTURE_H
#define QM_OAP_TESTS_DRIVER_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QmDriverLoader.h"
#include "QmLogInterface.h"
#include "QmReferenceJob.h"
#include "QmReferenceReportsManager.h"
#include "inbound_sender.h"

// A logger that keeps every line; safe for the driver's listener threads.
class RecordingLogger : public QmLogInterface {
 public:
  struct Line {
    LogLevel level;
    std::string text;
    std::string file;
  };

  bool WriteTrace(const std::string& m, int, const char* f) override {
    return Add(LEVEL_TRACE, m, f);
  }
  bool WriteDebug(const std::string& m, int, const char* f) override {
    return Add(LEVEL_DEBUG, m, f);
  }
  bool WriteInfo(const std::string& m, int, const char* f) override {
    return Add(LEVEL_INFO, m, f);
  }
  bool WriteWarn(const std::string& m, int, const char* f) override {
    return Add(LEVEL_WARN, m, f);
  }
  bool WriteError(const std::string& m, int, const char* f) override {
    return Add(LEVEL_ERROR, m, f);
  }
  bool WriteCritical(const std::string& m, int, const char* f) override {
    return Add(LEVEL_CRITICAL, m, f);
  }
  bool WriteFatal(const std::string& m, int, const char* f) override {
    return Add(LEVEL_FATAL, m, f);
  }
  void EnableThreadIdPrefix(bool) override {}
  LogLevel GetLogLevel() override { return LEVEL_TRACE; }
  std::string GetLoggerName() override { return "recording"; }

  // Lines written with exactly this text at this level.
  size_t Count(LogLevel level, const std::string& text) const;
  // Every line written from the given source name, in order.
  std::vector<std::string> TextsFrom(const std::string& file) const;

 private:
  bool Add(LogLevel level, const std::string& text, const char* file);

  mutable std::mutex m_mutex;
  std::vector<Line> m_lines;
};

// A small OAP server on 127.0.0.1: reads one request per connection (up to
// the closing tag), records it, writes whatever the responder returns (no
// answer when it returns "") and closes.
class FakeOapServer {
 public:
  using Responder = std::function<std::string(const std::string& request)>;

  explicit FakeOapServer(Responder responder);
  ~FakeOapServer();

  int Port() const { return m_port; }
  std::vector<std::string> Requests() const;
  // Waits until at least `count` requests arrived; false after the limit.
  bool WaitForRequests(size_t count, int timeoutMs) const;

 private:
  void Serve();
  void ServeOne(int fd);

  Responder m_responder;
  int m_listenFd = -1;
  int m_port = 0;
  std::atomic<bool> m_stop{false};
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_arrived;
  std::vector<std::string> m_requests;
  std::thread m_thread;
};

// The id attribute of the request's start tag (lower-case hexadecimal).
std::string RequestId(const std::string& request);
// A response document of the given class and code for the given id.
std::string ResponseDoc(const std::string& hexId, int type, int code);
// The server's usual answer: class 1, code 200, same id as the request.
std::string AcceptAll(const std::string& request);
// A port on 127.0.0.1 that nothing listens on at the moment.
int UnusedPort();
std::string Hex(unsigned long value);

// The plug-in loaded and its driver wired to a recording logger, a queue and
// a reports manager, as a host does it.
class DriverTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Runs Setup with the given listener port text on 127.0.0.1.
  bool SetupWithPort(const std::string& port);
  // Runs Setup on a free port and remembers it in listenerPort.
  void SetupOnFreePort();
  // A job addressed to the fake server.
  void Address(QmReferenceJob& job, int serverPort, const std::string& version = "3.0");
  // Jobs handed back so far, oldest first; the queue is emptied.
  std::vector<QmMessageFile*> DrainQueue();

  QmDriverLoader loader;
  QmProtocolDriverInterface* driver = nullptr;
  RecordingLogger logger;
  QmMessageQueue queue;
  QmReferenceReportsManager reports;
  int listenerPort = 0;
};

#endif
