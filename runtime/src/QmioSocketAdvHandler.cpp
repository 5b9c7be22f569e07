#include "QmioSocketAdvHandler.h"

#include <cxxabi.h>

#include <cstring>

#include "QmString.h"
#include "QmioException.h"
#include "QmioSocket.h"

namespace {

const char* const kSource = "QmioSocketAdvHandler";
const unsigned int kPieceSize = 1024;
// The message of the exception a read throws when the peer has closed.
const char kClosedByPeer[] = "Socket is closed";

}  // namespace

QmioSocketAdvHandler::QmioSocketAdvHandler(const std::string& terminator, int readTimeoutMs)
    : m_readTimeout(readTimeoutMs), m_terminator(terminator) {}

QmioSocketAdvHandler::~QmioSocketAdvHandler() = default;

void QmioSocketAdvHandler::SendData(const std::string& data) {
  QM_LOG(m_logger, Trace, kSource, "Entering QmioSocketAdvHandler::SendData");
  m_socket->Write(data);
  QM_LOG(m_logger, Trace, kSource, "Leaving QmioSocketAdvHandler::SendData");
}

bool QmioSocketAdvHandler::OnReceived(const std::string& piece) {
  return OnData(piece);
}

void QmioSocketAdvHandler::OnSocketEvent(QmioSocket* socket, SocketEvent event, void* /*data*/) {
  QM_LOG(m_logger, Trace, kSource, "Entering QmioSocketAdvHandler::OnSocketEvent");
  SetKeepConnection(false);
  // A handler made before its connection was known serves the event's socket.
  if (m_socket == nullptr) m_socket = socket;
  if (socket != nullptr) m_clientName = socket->GetRemoteAddress();
  if (event == EVENT_DATA_READY && m_socket != nullptr) {
    try {
      ReadLoop();
    } catch (const abi::__forced_unwind&) {
      throw;  // the thread is being ended; let it go
    } catch (const QmException& e) {
      const std::string line = QmstringFormat("Adv Socket Handler <%s>: Exception occurred [%s]",
                                              m_clientName.c_str(), e.ToString().c_str());
      // A peer that closes the connection ends it normally.
      if (e.GetMsg() == kClosedByPeer) {
        QM_LOG(m_logger, Debug, kSource, line);
      } else {
        QM_LOG(m_logger, Error, kSource, line);
      }
    } catch (...) {
      QM_LOG(m_logger, Error, kSource,
             QmstringFormat("Adv Socket Handler <%s>: Unknown exception occured",
                            m_clientName.c_str()));
    }
  }
  QM_LOG(m_logger, Trace, kSource, "Leaving QmioSocketAdvHandler::OnSocketEvent");
}

void QmioSocketAdvHandler::ReadLoop() {
  unsigned char buffer[kPieceSize];
  // The event says data is there: the first read waits (at most the read
  // time-out) for it, the following ones take only what has come meanwhile.
  for (int timeoutMs = m_readTimeout;; timeoutMs = 0) {
    QmioSocket::SocketStatus status = QmioSocket::SOCKET_DONE;
    int received = -1;
    try {
      received = m_socket->Read(buffer, kPieceSize, timeoutMs, status, false);
    } catch (const QmioException& e) {
      if (e.GetMsg() == kClosedByPeer) OnPeerClosed();
      throw;
    }
    if (received <= 0) {
      // Nothing more for now: the connection waits in the pool for its next
      // data instead of holding this thread. A failed wait (status 36) ends
      // it.
      SetKeepConnection(status == QmioSocket::SOCKET_TIMEOUT);
      return;
    }
    if (!OnReceived(std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(received)))) {
      QM_LOG(m_logger, Info, kSource,
             QmstringFormat("Adv Socket Handler <%s>: Data handler signals close of socket",
                            m_clientName.c_str()));
      return;
    }
  }
}
