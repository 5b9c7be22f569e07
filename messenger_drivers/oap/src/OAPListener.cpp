#include "OAPListener.h"

#include "OAPConnectionHandler.h"

namespace {

const int kSocketLimit = 10;
const int kThreadCount = 10;

}  // namespace

OAPListener::OAPListener() : QmioSocketListener(kSocketLimit, kThreadCount) {}

OAPListener::~OAPListener() = default;

std::string OAPListener::GetRunningModuleName() {
  return "OAP Listener";
}

bool OAPListener::OnConnection(QmioSocket* /*accepted*/) {
  return true;
}

QmioSocketEventHandler* OAPListener::GetHandler() {
  return new OAPConnectionHandler(m_logger);
}
