#include "OAPListener.h"

#include "OAPConnectionHandler.h"

namespace {

const char kSource[] = "messenger_drivers/oap/src/OAPListener";
const int kSocketLimit = 10;
const int kThreadCount = 10;

}  // namespace

OAPListener::OAPListener() : QmioSocketListener(kSocketLimit, kThreadCount) {}

OAPListener::~OAPListener() = default;

std::string OAPListener::GetRunningModuleName() {
  return "OAP Listener";
}

bool OAPListener::OnConnection(QmioSocket* /*accepted*/) {
  QM_LOG(m_logger, Trace, kSource, "Entering OAPListener::OnConnection().");
  QM_LOG(m_logger, Trace, kSource, "Leaving OAPListener::OnConnection() with TRUE.");
  return true;
}

QmioSocketEventHandler* OAPListener::GetHandler() {
  QM_LOG(m_logger, Trace, kSource, "Entering OAPListener::GetHandler().");
  QmioSocketEventHandler* handler = new OAPConnectionHandler(m_logger);
  QM_LOG(m_logger, Trace, kSource, "Leaving OAPListener::GetHandler() with TRUE.");
  return handler;
}
