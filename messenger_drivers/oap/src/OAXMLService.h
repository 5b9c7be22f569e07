#ifndef QM_OAP_OAXMLSERVICE_H
#define QM_OAP_OAXMLSERVICE_H

#include <string>

#include "OAPBlockBody.h"

// The version 4.0 "OA-XML" envelope: a Body element holding a service element
// with the tracking number (Id) and one content body. Outgoing it wraps a
// 4.0 message; inbound it holds the handset's answer. Owns its content.
class OAXMLService : public OAPBlockBody {
 public:
  OAPBlockBody* content = nullptr;

  OAXMLService();
  OAXMLService(const OAXMLService&) = delete;
  OAXMLService& operator=(const OAXMLService&) = delete;
  ~OAXMLService() override;

  // The content's service name; "" while there is no content.
  std::string GetServiceName() const override;
  // Reads Id and Interactive_Message_Response from the Body element's
  // service child.
  void ParseXML(XmlReaderWriter::Node& element) override;
  // The envelope with the content's text inside.
  std::string Serialize() override;
};

#endif
