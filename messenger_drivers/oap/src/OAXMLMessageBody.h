#ifndef QM_OAP_OAXMLMESSAGEBODY_H
#define QM_OAP_OAXMLMESSAGEBODY_H

#include <string>

#include "MessageBody.h"

// A plain version 4.0 message: the Message element that an OA-XML envelope
// carries, with subject, text, indication, time to live and priority.
class OAXMLMessageBody : public MessageBody {
 public:
  std::string Serialize() override;
};

#endif
