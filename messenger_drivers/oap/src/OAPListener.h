#ifndef QM_OAP_OAPLISTENER_H
#define QM_OAP_OAPLISTENER_H

#include <string>

#include "QmioSocketListener.h"

// The driver's inbound listener: accepts every connection from the OAP
// server and serves each with an OAPConnectionHandler. Owned by OAPClient.
class OAPListener : public QmioSocketListener {
 public:
  OAPListener();
  ~OAPListener() override;

  std::string GetRunningModuleName() override;
  // Takes every connection: no address filter.
  bool OnConnection(QmioSocket* accepted) override;
  // A new handler carrying the listener's logger; the socket will own it.
  QmioSocketEventHandler* GetHandler() override;
};

#endif
