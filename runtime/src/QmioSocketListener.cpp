#include "QmioSocketListener.h"

#include <cxxabi.h>

#include "QmException.h"
#include "QmString.h"
#include "QmioAcceptedSocket.h"
#include "QmioServerSocket.h"
#include "QmioSocketEventHandler.h"
#include "QmioSocketPool.h"

namespace {

const char* const kSource = "QmioSocketListener";
const int kAcceptWaitMs = 1000;
const int kPoolStopMs = 2000;
const int kStopCheckMs = 1;

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

}  // namespace

QmioSocketListener::QmioSocketListener(int socketLimit, int threadCount)
    : m_threadCount(threadCount), m_socketLimit(socketLimit) {}

QmioSocketListener::~QmioSocketListener() = default;

bool QmioSocketListener::InitializeSpecial() {
  return RunLogged(m_logger, [this] {
    m_serverSocket.reset(new QmioServerSocket());
    m_pool.reset(new QmioSocketPool());
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

void QmioSocketListener::DoThreadWork() {
  QM_LOG(m_logger, Trace, kSource, "Entering QmioSocketListener::DoThreadWork");
  RunLogged(m_logger, [this] {
    while (AcceptOnce()) {
    }
    QM_LOG(m_logger, Debug, kSource, "SocketListener: Do not continue any more");
    return true;
  });
  QM_LOG(m_logger, Trace, kSource, "Leaving QmioSocketListener::DoThreadWork");
}

bool QmioSocketListener::AcceptOnce() {
  QmioSocket* accepted = m_serverSocket->Accept(kAcceptWaitMs);
  if (accepted == nullptr) return KeepContinueMyself(kAcceptWaitMs, true);
  TakeConnection(accepted);
  // After a connection only the stop request is checked (the shortest wait),
  // so that a burst of connections is taken at once instead of one a second.
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
  try {
    m_pool->AddSocket(socket);
  } catch (const QmException&) {
    // "Too Many Sockets": the connection is dropped, not leaked, and the
    // exception ends the accept loop.
    delete socket;
    throw;
  }
  QM_LOG(m_logger, Info, kSource,
         QmstringFormat("Connection with client [IP address '%s'] accepted.", address.c_str()));
}
