#include "OAPConnectionHandler.h"

#include <exception>
#include <memory>

#include "OAPBlock.h"
#include "OAPDeviceController.h"
#include "OAPDeviceRegistrar.h"
#include "OAPServiceHandlerInterface.h"
#include "QmString.h"

namespace {

const char kSource[] = "messenger_drivers/oap/src/OAPConnectionHandler";
const int kReadTimeoutMs = 1000;
// How much of a rejected piece a warning shows.
const size_t kShownBytes = 64;

}  // namespace

OAPConnectionHandler::OAPConnectionHandler(QmLogInterface* logger)
    : QmioSocketAdvHandler("", kReadTimeoutMs) {
  SetLogger(logger);
  // Nothing is written back: a server that has closed its side is let go
  // before its last document is handled (and that answer echoed to it).
  SetRepliesOnConnection(false);
}

OAPConnectionHandler::~OAPConnectionHandler() = default;

bool OAPConnectionHandler::OnReceived(const std::string& piece) {
  m_framer.Append(piece);
  std::string document;
  for (;;) {
    switch (m_framer.Next(document)) {
      case OAPDocumentFramer::kDocument:
        // A dropped document does not end the connection: the next one on it
        // may well be for a known message.
        OnData(document);
        break;
      case OAPDocumentFramer::kNeedMore:
        return true;
      case OAPDocumentFramer::kInvalid: {
        const std::string rest = m_framer.TakeRest();
        QM_LOG(m_logger, Warn, kSource,
               QmstringFormat("Closing connection with <%s>: received bytes that cannot begin an "
                              "OAP document [%s]",
                              m_clientName.c_str(),
                              QmstringSafeByteString(rest.substr(0, kShownBytes)).c_str()));
        return false;
      }
      case OAPDocumentFramer::kTooLong:
        QM_LOG(m_logger, Warn, kSource,
               QmstringFormat("Closing connection with <%s>: no complete OAP document within %lu "
                              "bytes",
                              m_clientName.c_str(),
                              static_cast<unsigned long>(OAPDocumentFramer::kMaxDocument)));
        return false;
    }
  }
}

void OAPConnectionHandler::OnPeerClosed() {
  if (m_framer.HasRest()) OnData(m_framer.TakeRest());
}

bool OAPConnectionHandler::OnData(const std::string& data) {
  QM_LOG(m_logger, Trace, kSource, "Entering OAPConnectionHandler::OnData");
  QM_LOG(m_logger, Debug, kSource,
         QmstringFormat("Processing incoming paylaod [%s]", data.c_str()));

  std::unique_ptr<OAPBlock> block(OAPBlock::Parse(data));
  if (block == nullptr) {
    QM_LOG(m_logger, Warn, kSource, "Dropping incoming payload that is not an OAP block");
    QM_LOG(m_logger, Trace, kSource, "Leaving OAPConnectionHandler::OnData");
    return false;
  }

  const unsigned long tracking = block->GetID();
  const OAPDeviceRegistrar::Device device =
      OAPDeviceRegistrar::GetInstance()->GetDeviceByTrackingID(block->GetID());
  if (device == nullptr) {
    QM_LOG(m_logger, Warn, kSource,
           QmstringFormat("Couldn't find device controller by Trackign ID '%lu'", tracking));
    QM_LOG(m_logger, Trace, kSource, "Leaving OAPConnectionHandler::OnData");
    return false;
  }

  std::unique_ptr<OAPServiceHandlerInterface> handler(OAPServiceHandlerInterface::GetServiceHandler(
      block->GetServiceName(), block->GetServiceVersion()));
  handler->SetDeviceContext(device.get());
  QM_LOG(m_logger, Info, kSource,
         QmstringFormat("Handling request from Handset '%s' for Msg Tracking #%lu",
                        device->handset.c_str(), tracking));
  try {
    handler->Handle(block.get());
  } catch (const std::exception& e) {
    // A malformed answer or a failed echo to the server must not end the
    // connection's worker thread.
    QM_LOG(
        m_logger, Error, kSource,
        QmstringFormat("Failed to handle request for Msg Tracking #%lu [%s]", tracking, e.what()));
  }
  QM_LOG(m_logger, Trace, kSource, "Leaving OAPConnectionHandler::OnData");
  return true;
}
