#ifndef QM_OAP_OAPCONNECTIONHANDLER_H
#define QM_OAP_OAPCONNECTIONHANDLER_H

#include <string>

#include "QmLogInterface.h"
#include "QmioSocketAdvHandler.h"

// Serves one inbound connection from the OAP server: every request that
// arrives is parsed, matched to the device controller that issued its
// tracking number and handed to the service handler. Nothing is written back
// on the connection. The logger (may be null) is not owned.
class OAPConnectionHandler : public QmioSocketAdvHandler {
 public:
  explicit OAPConnectionHandler(QmLogInterface* logger);
  ~OAPConnectionHandler() override;

  // True when the request went to a service handler; false (which ends the
  // connection) when it is no OAP block or no controller knows its number.
  bool OnData(const std::string& data) override;
};

#endif
