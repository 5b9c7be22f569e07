#include "QmioSocketAdvHandler.h"

#include <cxxabi.h>

#include <cstring>

#include "QmException.h"
#include "QmString.h"
#include "QmioSocket.h"

namespace {

const char* const kSource = "QmioSocketAdvHandler";
const unsigned int kPieceSize = 1024;

}  // namespace

QmioSocketAdvHandler::QmioSocketAdvHandler(const std::string& terminator, int readTimeoutMs)
    : m_readTimeout(readTimeoutMs), m_terminator(terminator) {}

QmioSocketAdvHandler::~QmioSocketAdvHandler() = default;

void QmioSocketAdvHandler::SendData(const std::string& data) {
  QM_LOG(m_logger, Trace, kSource, "Entering QmioSocketAdvHandler::SendData");
  m_socket->Write(data);
  QM_LOG(m_logger, Trace, kSource, "Leaving QmioSocketAdvHandler::SendData");
}

void QmioSocketAdvHandler::OnSocketEvent(QmioSocket* socket, SocketEvent event, void* /*data*/) {
  QM_LOG(m_logger, Trace, kSource, "Entering QmioSocketAdvHandler::OnSocketEvent");
  // A handler made before its connection was known serves the event's socket.
  if (m_socket == nullptr) m_socket = socket;
  if (socket != nullptr) m_clientName = socket->GetRemoteAddress();
  if (event == EVENT_DATA_READY && m_socket != nullptr) {
    try {
      ReadLoop();
    } catch (const abi::__forced_unwind&) {
      throw;  // the thread is being ended; let it go
    } catch (const QmException& e) {
      QM_LOG(m_logger, Error, kSource,
             QmstringFormat("Adv Socket Handler <%s>: Exception occurred [%s]",
                            m_clientName.c_str(), e.ToString().c_str()));
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
  for (;;) {
    std::memset(buffer, 0, sizeof(buffer));
    QmioSocket::SocketStatus status = QmioSocket::SOCKET_DONE;
    const int received = m_socket->Read(buffer, kPieceSize, m_readTimeout, status, false);
    if (received <= 0) {
      // A time-out starts the next read; a failed wait (status 36) ends the
      // connection instead of spinning on it.
      if (status == QmioSocket::SOCKET_FAILED) return;
      continue;
    }
    if (!OnData(std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(received)))) {
      QM_LOG(m_logger, Info, kSource,
             QmstringFormat("Adv Socket Handler <%s>: Data handler signals close of socket",
                            m_clientName.c_str()));
      return;
    }
  }
}
