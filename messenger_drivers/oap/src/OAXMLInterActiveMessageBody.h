#ifndef QM_OAP_OAXMLINTERACTIVEMESSAGEBODY_H
#define QM_OAP_OAXMLINTERACTIVEMESSAGEBODY_H

#include <cstdint>
#include <string>

#include "OAXMLMessageBody.h"

// A version 4.0 interactive message: the plain message wrapped in
// Interactive_Message with update, sticky mode and the selectable options
// (listed options, the free-text "Custom" option and a "Close" option).
class OAXMLInterActiveMessageBody : public OAXMLMessageBody {
 public:
  int32_t reserved3 = 0;
  int32_t reserved4 = 0;
  int32_t reserved5 = 0;

  std::string Serialize() override;
};

#endif
