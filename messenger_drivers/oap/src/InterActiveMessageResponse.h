#ifndef QM_OAP_INTERACTIVEMESSAGERESPONSE_H
#define QM_OAP_INTERACTIVEMESSAGERESPONSE_H

#include <cstdint>
#include <string>

#include "OAPBlockBody.h"

// A handset's answer to an interactive message, as carried inbound in an
// OA-XML envelope: the chosen option's data, or a typed reply.
class InterActiveMessageResponse : public OAPBlockBody {
 public:
  std::string dataResponse;
  std::string userResponse;
  std::string reservedText;
  int32_t reserved1 = 0;

  InterActiveMessageResponse();

  // Takes Data_response when present, otherwise User_response.
  void ParseXML(XmlReaderWriter::Node& element) override;
};

#endif
