#ifndef QM_OAP_OAPREQUESTBLOCK_H
#define QM_OAP_OAPREQUESTBLOCK_H

#include <string>

#include "OAPBlock.h"

// An OAP-request document: written by the driver to send a message, and read
// when the server delivers a handset's answer to the driver's listener.
class OAPRequestBlock : public OAPBlock {
 public:
  OAPRequestBlock();

  // Attaches an empty header when the document has one, and an OA-XML body
  // (whose Id becomes the block's id) when the Body's service is "OA-XML".
  void ParseXML(XmlReaderWriter::Node& root) override;
  // The whole request document: declaration, start tag, header, body.
  std::string Serialize() override;
  ~OAPRequestBlock() override;
};

#endif
