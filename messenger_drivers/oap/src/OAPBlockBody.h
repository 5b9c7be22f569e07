#ifndef QM_OAP_OAPBLOCKBODY_H
#define QM_OAP_OAPBLOCKBODY_H

#include <cstdint>
#include <string>

#include "XmlReaderWriter.h"

// Base of every OAP block body: the protocol version the body is meant for,
// the service it belongs to and the tracking number it carries. Concrete
// bodies write themselves (outgoing) or read themselves (inbound). A block
// owns its body and deletes it through this base.
class OAPBlockBody {
 public:
  std::string version;
  std::string serviceName;
  uint32_t id = 0;

  OAPBlockBody() = default;
  OAPBlockBody(const OAPBlockBody&) = default;
  OAPBlockBody& operator=(const OAPBlockBody&) = default;

  virtual std::string GetServiceName() const;
  // Fills the body from a received element; the base reads nothing.
  virtual void ParseXML(XmlReaderWriter::Node& element);
  // The body as XML text; the base writes nothing.
  virtual std::string Serialize();
  // Declared after the three operations above so that their order is kept;
  // lets a block release a concrete body completely through this base.
  virtual ~OAPBlockBody();
};

#endif
