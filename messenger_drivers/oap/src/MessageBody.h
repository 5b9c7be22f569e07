#ifndef QM_OAP_MESSAGEBODY_H
#define QM_OAP_MESSAGEBODY_H

#include <cstdint>
#include <string>
#include <vector>

#include "OAPBlockBody.h"

// The outgoing message record: recipient, texts, presentation settings and the
// answer options of an interactive message. Serialises itself in the flat
// version 3.0 shape; the 4.0 shapes derive from it. Copyable by value.
class MessageBody : public OAPBlockBody {
 public:
  // One answer choice of an interactive message, copied by value.
  struct Option {
    std::string text;
    std::string dataResp;
    std::string callNo;
    int32_t reserved1 = 0;
    std::string reservedText;
  };

  std::string to;
  std::string subjectText;
  std::string bodyText;
  int32_t beep = 0;
  bool urgent = false;
  int32_t reserved1 = 0;
  std::string intensity;
  std::string colour;
  int32_t reserved2 = 0;
  int32_t intervalTime = 0;
  int32_t numberOfRepetitions = 0;
  int32_t priority = 6;
  int32_t ttl = 0;
  std::string reservedText;
  bool updateOnlyExisting = false;
  bool wipeOptions = false;
  int32_t auxValue = 0;
  bool sticky = false;
  std::string userResponseLabel;
  std::string fromNumber;
  bool replyHeaderAdded = false;
  std::vector<Option> options;

  MessageBody();

  // The version 3.0 Body element.
  std::string Serialize() override;
};

#endif
