#include "OAXMLInterActiveMessageBody.h"

#include <sstream>

#include "QmsysCodec.h"

namespace {

// Version 4.0 documents declare UTF-8.
const char kEncoding[] = "UTF-8";

std::string Text(const std::string& value) {
  return QmsysCodec::EncodeXmlText(value, kEncoding, false);
}

const char* const kStickyReset = "<Sticky_mode>reset</Sticky_mode>\n";

void WriteListedOption(std::ostringstream& out, const MessageBody::Option& option, size_t number,
                       char key, bool sticky) {
  out << "<Option>\n";
  out << "<ID>" << number << "</ID>\n";
  out << "<Text>" << Text(option.text) << "</Text>\n";
  out << "<Function_key_ID>" << key << "</Function_key_ID>\n";
  out << "<On_selection>\n";
  out << "<Data_response>" << Text(option.dataResp) << "</Data_response>\n";
  if (!option.callNo.empty()) {
    out << "<Call_number>\n<Digits>" << Text(option.callNo) << "</Digits>\n</Call_number>\n";
  }
  if (sticky) out << kStickyReset;
  out << "</On_selection>\n";
  out << "</Option>\n";
}

void WriteCustomOption(std::ostringstream& out, const std::string& label, size_t number,
                       bool sticky) {
  out << "<Option>\n";
  out << "<ID>" << number << "</ID>\n";
  out << "<Text>Custom</Text>\n";
  out << "<Function_key_ID>A</Function_key_ID>\n";
  out << "<On_selection>\n";
  out << "<User_response>\n";
  out << "<Text_label>" << Text(label) << "</Text_label>\n";
  out << "</User_response>\n";
  if (sticky) out << kStickyReset;
  out << "</On_selection>\n";
  out << "</Option>\n";
}

void WriteCloseOption(std::ostringstream& out, size_t number, bool sticky) {
  out << "<Option>\n";
  out << "<ID>" << number << "</ID>\n";
  out << "<Text>Close</Text>\n";
  out << "<Function_key_ID>C</Function_key_ID>\n";
  out << "<On_selection>\n";
  if (sticky) out << kStickyReset;
  out << "<Close_message/>\n";
  out << "</On_selection>\n";
  out << "</Option>\n";
}

}  // namespace

std::string OAXMLInterActiveMessageBody::Serialize() {
  static const char szDefaultKeys[] = "AC";
  std::ostringstream out;
  out << "<Interactive_Message>\n" << OAXMLMessageBody::Serialize() << "\n";
  if (updateOnlyExisting) {
    out << "<Update>\n</Update>\n";
    if (wipeOptions) out << "<Option/>\n";
  } else if (sticky) {
    out << "<Sticky_mode>mode1</Sticky_mode>\n";
  }
  const bool optionsWiped = updateOnlyExisting && wipeOptions;
  if (!optionsWiped && !options.empty()) {
    const size_t listed = options.size();
    size_t number = 1;
    for (const Option& option : options) {
      // Only a two-option message maps its options to the two function keys.
      const char key = listed == 2 ? szDefaultKeys[number - 1] : 'A';
      WriteListedOption(out, option, number++, key, sticky);
    }
    if (!userResponseLabel.empty()) WriteCustomOption(out, userResponseLabel, number++, sticky);
    if (listed > 2) WriteCloseOption(out, number, sticky);
  }
  out << "</Interactive_Message>";
  return out.str();
}
