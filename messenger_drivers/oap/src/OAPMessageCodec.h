#ifndef QM_OAP_OAPMESSAGECODEC_H
#define QM_OAP_OAPMESSAGECODEC_H

#include <list>
#include <string>

class MessageBody;

// The bytes a message store keeps for a message body and for a list of
// replies. A body keeps every field of MessageBody, so that an update built
// from a decoded body is the one built from the original. Decoding checks
// every length against the bytes given: damaged bytes are refused, never
// read beyond. Stateless; safe on any thread.
class OAPMessageCodec {
 public:
  static std::string EncodeBody(const MessageBody& body);
  // False (with `out` in an unspecified state) for bytes that are no body.
  static bool DecodeBody(const std::string& bytes, MessageBody* out);
  static std::string EncodeTexts(const std::list<std::string>& texts);
  static bool DecodeTexts(const std::string& bytes, std::list<std::string>* out);
};

#endif
