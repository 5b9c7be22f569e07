#include "QmioSocketListener.h"

#include <cxxabi.h>

#include <chrono>

#include "QmException.h"
#include "QmString.h"
#include "QmioAcceptedSocket.h"
#include "QmioServerSocket.h"
#include "QmioSocketEventHandler.h"
#include "QmioSocketPool.h"

namespace {

const char* const kSource = "QmioSocketListener";
// Each wait for a connection or for room in the pool lasts at most this
// long, so that a stop request is seen within it.
const int kWaitStepMs = 100;
const int kPoolStopMs = 2000;
const int kStopCheckMs = 1;
const int kFailurePauseMs = 1000;
const int kDefaultIdleTimeoutMs = 30000;
const int kFirstBytesWaitMs = 1;

// Runs `work` and returns its result; an exception is logged and gives false.
// A thread being cancelled unwinds on through.
template <typename Work>
bool RunLogged(QmLogInterface* logger, Work work) {
  try {
    return work();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const QmException& e) {
    QM_LOG(logger, Error, kSource, QmstringFormat("%s", e.ToString().c_str()));
  } catch (...) {
    QM_LOG(logger, Error, kSource, "Unknown exception");
  }
  return false;
}

// Writes the accept loop's closing lines, and marks its end, however the
// loop is left.
class LoopExitLines {
 public:
  LoopExitLines(QmLogInterface* logger, std::atomic<bool>* ended)
      : m_logger(logger), m_ended(ended) {
    QM_LOG(m_logger, Trace, kSource, "Entering QmioSocketListener::DoThreadWork");
  }
  ~LoopExitLines() {
    QM_LOG(m_logger, Debug, kSource, "SocketListener: Do not continue any more");
    QM_LOG(m_logger, Trace, kSource, "Leaving QmioSocketListener::DoThreadWork");
    m_ended->store(true);
  }
  LoopExitLines(const LoopExitLines&) = delete;
  LoopExitLines& operator=(const LoopExitLines&) = delete;

 private:
  QmLogInterface* m_logger;
  std::atomic<bool>* m_ended;
};

}  // namespace

QmioSocketListener::QmioSocketListener(int socketLimit, int threadCount)
    : m_threadCount(threadCount),
      m_socketLimit(socketLimit),
      m_idleTimeoutMs(kDefaultIdleTimeoutMs) {}

QmioSocketListener::~QmioSocketListener() = default;

bool QmioSocketListener::InitializeSpecial() {
  return RunLogged(m_logger, [this] {
    m_serverSocket.reset(new QmioServerSocket());
    m_pool.reset(new QmioSocketPool());
    m_pool->SetLogger(m_logger);
    m_pool->SetIdleTimeout(m_idleTimeoutMs);
    return m_pool->Initialize(m_socketLimit, m_threadCount);
  });
}

bool QmioSocketListener::Listen(int port, const std::string& host) {
  return RunLogged(m_logger, [&] {
    if (m_serverSocket == nullptr) QM_THROW("Listener is not initialised");
    m_serverSocket->Listen(host, port, true);
    return StartAsThread();
  });
}

bool QmioSocketListener::FinalizeSpecial() {
  return RunLogged(m_logger, [this] {
    bool result = true;
    if (m_serverSocket != nullptr) result = m_serverSocket->Shutdown();
    if (m_pool != nullptr) result = m_pool->Stop(kPoolStopMs);
    return result;
  });
}

int QmioSocketListener::GetListeningPort() const {
  return m_serverSocket != nullptr ? m_serverSocket->GetPort() : -1;
}

void QmioSocketListener::SetIdleTimeout(int timeoutMs) {
  m_idleTimeoutMs = timeoutMs;
  if (m_pool != nullptr) m_pool->SetIdleTimeout(timeoutMs);
}

void QmioSocketListener::DoThreadWork() {
  LoopExitLines exitLines(m_logger, &m_ended);
  for (;;) {
    bool goOn = false;
    // A failure is logged and the loop goes on after a pause; only a stop
    // request, or a listening socket that no longer listens, ends it.
    const bool passed = RunLogged(m_logger, [&] {
      goOn = AcceptOnce();
      return true;
    });
    if (passed && !goOn) return;
    if (!passed && (!m_serverSocket->IsListening() || !KeepContinueMyself(kFailurePauseMs, true))) {
      return;
    }
  }
}

// Takes one connection, or none within a wait step. False on a stop request
// (or a listening socket that was shut down); failures throw.
bool QmioSocketListener::AcceptOnce() {
  QmioSocket* accepted = m_serverSocket->Accept(kWaitStepMs);
  if (accepted == nullptr) {
    return m_serverSocket->GetSocket() >= 0 && KeepContinueMyself(kStopCheckMs, true);
  }
  TakeConnection(accepted);
  // The stop check costs a short sleep: while connections keep coming it is
  // made once per wait step, not once per connection.
  const auto now = std::chrono::steady_clock::now();
  if (now - m_lastStopCheck < std::chrono::milliseconds(kWaitStepMs)) return true;
  m_lastStopCheck = now;
  return KeepContinueMyself(kStopCheckMs, true);
}

void QmioSocketListener::TakeConnection(QmioSocket* socket) {
  const std::string address = socket->GetRemoteAddress();
  socket->SetEventLog(m_logger);
  if (!OnConnection(socket)) {
    socket->Close();
    delete socket;
    QM_LOG(m_logger, Error, kSource,
           QmstringFormat("Connection with client [IP address '%s'] closed.", address.c_str()));
    return;
  }
  socket->SetEventHandler(GetHandler());
  // A sender writes right after connecting: a moment's wait for those bytes
  // lets the connection go straight to a worker instead of through the
  // pool's watch thread, one thread wake-up fewer on the way of an answer.
  socket->Wait(true, false, kFirstBytesWaitMs);
  // A full pool makes room or, while every waiting connection has data,
  // is waited for: further connections queue in the kernel meanwhile.
  while (!m_pool->AddSocketMakingRoom(socket, kWaitStepMs)) {
    if (!KeepContinueMyself(kStopCheckMs, true)) {
      delete socket;
      return;
    }
  }
  QM_LOG(m_logger, Info, kSource,
         QmstringFormat("Connection with client [IP address '%s'] accepted.", address.c_str()));
}
