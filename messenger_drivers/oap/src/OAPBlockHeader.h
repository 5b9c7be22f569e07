#ifndef QM_OAP_OAPBLOCKHEADER_H
#define QM_OAP_OAPBLOCKHEADER_H

#include <string>

// The Header element of an outgoing OAP request: where the server reaches the
// driver's own listener, the handset, the sender's number and whether delivery
// reports are wanted. A plain record owned by its block.
class OAPBlockHeader {
 public:
  std::string ip;
  std::string to;
  int port = 0;
  std::string fromNumber;
  bool deliveryStatus = false;

  // The Header element as text for a document declared with `encoding`, one
  // element per line; the texts are escaped and transcoded for the document
  // (QmsysCodec::EncodeXmlText).
  std::string Serialize(const std::string& encoding) const;
};

#endif
