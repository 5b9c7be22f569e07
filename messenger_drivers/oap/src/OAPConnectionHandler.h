#ifndef QM_OAP_OAPCONNECTIONHANDLER_H
#define QM_OAP_OAPCONNECTIONHANDLER_H

#include <string>

#include "OAPDocumentFramer.h"
#include "QmLogInterface.h"
#include "QmioSocketAdvHandler.h"

// Serves one inbound connection from the OAP server: the bytes that arrive
// are cut into whole documents (OAPDocumentFramer), and each document is
// parsed, matched to the device controller that issued its tracking number
// and handed to the service handler. The connection stays open for further
// documents until the server closes it (or the socket pool closes it when
// idle); bytes that cannot begin a document, or more than 64 KiB without a
// whole document, close it with a warning. Nothing is written back on the
// connection. The logger (may be null) is not owned.
class OAPConnectionHandler : public QmioSocketAdvHandler {
 public:
  explicit OAPConnectionHandler(QmLogInterface* logger);
  ~OAPConnectionHandler() override;

  // One whole document. True when the request went to a service handler;
  // false when it is no OAP block or no controller knows its number (the
  // document is dropped).
  bool OnData(const std::string& data) override;

 protected:
  bool OnReceived(const std::string& piece) override;
  // A document left unfinished by the peer's close is handled as it is.
  void OnPeerClosed() override;

 private:
  OAPDocumentFramer m_framer;
};

#endif
