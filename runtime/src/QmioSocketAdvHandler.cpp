#include "QmioSocketAdvHandler.h"

#include <cxxabi.h>
#include <sys/socket.h>

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
      if (m_logger != nullptr) {
        const std::string line = QmstringFormat("Adv Socket Handler <%s>: Exception occurred [%s]",
                                                m_clientName.c_str(), e.ToString().c_str());
        // A peer that closes the connection ends it normally.
        if (e.GetMsg() == kClosedByPeer) {
          m_logger->WriteDebug(line, __LINE__, kSource);
        } else {
          m_logger->WriteError(line, __LINE__, kSource);
        }
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
  // Without replies on the connection, what was read last is passed on only
  // after the next read: when that read finds the peer's close, the
  // connection is released before its last data is handled.
  std::string held;
  for (bool first = true;; first = false) {
    QmioSocket::SocketStatus status = QmioSocket::SOCKET_DONE;
    std::string piece;
    try {
      piece = ReadPiece(first, status);
    } catch (const QmioException& e) {
      if (e.GetMsg() != kClosedByPeer) throw;
      if (!held.empty()) {
        // Ends the connection for the peer; the descriptor itself stays
        // until the socket is deleted, so that its number is not reused
        // while the pool may still name it.
        shutdown(m_socket->GetSocket(), SHUT_RDWR);
        if (!PassOn(held)) return;
      }
      OnPeerClosed();
      throw;
    }
    if (piece.empty()) {
      if (!held.empty() && !PassOn(held)) return;
      // Nothing more for now: the connection waits in the pool for its next
      // data instead of holding this thread. A failed wait (status 36) ends
      // it.
      SetKeepConnection(status == QmioSocket::SOCKET_TIMEOUT);
      return;
    }
    if (m_repliesOnConnection) {
      if (!PassOn(piece)) return;
    } else {
      if (!held.empty() && !PassOn(held)) return;
      held.swap(piece);
    }
  }
}

std::string QmioSocketAdvHandler::ReadPiece(bool first, QmioSocket::SocketStatus& status) {
  unsigned char buffer[kPieceSize];
  // The event says data is there: each read takes what has come; only when
  // the first finds nothing yet does it wait (at most the read time-out).
  int received = m_socket->Read(buffer, kPieceSize, 0, status, false);
  if (first && received <= 0 && status == QmioSocket::SOCKET_TIMEOUT && m_readTimeout != 0) {
    received = m_socket->Read(buffer, kPieceSize, m_readTimeout, status, false);
  }
  return std::string(reinterpret_cast<char*>(buffer), received > 0 ? received : 0);
}

bool QmioSocketAdvHandler::PassOn(const std::string& piece) {
  if (OnReceived(piece)) return true;
  QM_LOG(m_logger, Info, kSource,
         QmstringFormat("Adv Socket Handler <%s>: Data handler signals close of socket",
                        m_clientName.c_str()));
  return false;
}
