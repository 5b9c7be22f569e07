#include "MessageBody.h"

#include <sstream>

#include "QmsysCodec.h"

namespace {

// Version 3.0 documents declare ISO-8859-1.
const char kEncoding[] = "ISO-8859-1";

std::string Text(const std::string& value) {
  return QmsysCodec::EncodeXmlText(value, kEncoding, false);
}

void WriteOptions(std::ostringstream& out, const MessageBody& message, const char* keys) {
  const size_t total = message.options.size() + (message.userResponseLabel.empty() ? 0 : 1);
  // With exactly two choices the handset maps them to its two function keys.
  auto key = [&](size_t number) { return total == 2 ? keys[number - 1] : 'A'; };
  size_t number = 1;
  for (const MessageBody::Option& option : message.options) {
    out << "<Option id=\"" << number << "\">\n";
    out << "<Text>" << Text(option.text) << "</Text>\n";
    out << "<OnSelection>\n";
    if (!option.callNo.empty()) {
      out << "<CallNo method=\"\">" << Text(option.callNo) << "</CallNo>\n";
    }
    out << "<DataResp>" << Text(option.dataResp) << "</DataResp>\n";
    out << "</OnSelection>\n";
    out << "<FuncKeyId>" << key(number) << "</FuncKeyId>\n";
    out << "</Option>\n";
    ++number;
  }
  if (!message.userResponseLabel.empty()) {
    out << "<Option id=\"" << number << "\">\n";
    out << "<Text>Custom</Text>\n";
    out << "<OnSelection>\n";
    out << "<UserResponse>" << Text(message.userResponseLabel) << "</UserResponse>\n";
    out << "</OnSelection>\n";
    out << "<FuncKeyId>" << key(number) << "</FuncKeyId>\n";
    out << "</Option>\n";
  }
}

}  // namespace

MessageBody::MessageBody() {
  serviceName = "MessageBody";
}

std::string MessageBody::Serialize() {
  // Function keys of the first and second choice of a two-choice message.
  static const char szDefaultKeys[] = "AC";
  std::ostringstream out;
  const bool interactive = ttl > 0 || !options.empty();
  out << (interactive ? "<Body service=\"interactiveMessage\">" : "<Body service=\"message\">");
  out << "<To>" << Text(to) << "</To>\n";
  if (!subjectText.empty()) {
    out << "<SubjectText>" << QmsysCodec::EncodeXmlText(subjectText, kEncoding, true)
        << "</SubjectText>\n";
  }
  out << "<BodyText>" << QmsysCodec::EncodeXmlText(bodyText, kEncoding, true) << "</BodyText>\n";
  if (priority > 0) out << "<Priority>" << priority << "</Priority>\n";
  if (updateOnlyExisting) {
    out << "<Update>OnlyExisting</Update>\n";
  } else {
    // Without a TTL the next element follows on the same line.
    out << "<AvailabilityStatus/><DeliveryStatus/>";
    if (ttl > 0) out << "<TTL>" << ttl << "</TTL>\n";
  }
  const bool optionsWiped = updateOnlyExisting && wipeOptions;
  if (!optionsWiped && !options.empty()) WriteOptions(out, *this, szDefaultKeys);
  out << "</Body>";
  return out.str();
}
