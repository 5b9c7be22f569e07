#include "OAXMLMessageBody.h"

#include <sstream>

#include "QmsysCodec.h"

namespace {

// Version 4.0 documents declare UTF-8.
const char kEncoding[] = "UTF-8";

void WriteIndication(std::ostringstream& out, const MessageBody& message) {
  out << "<Indication>\n";
  if (message.beep > 0) out << "<Beep>" << message.beep << "</Beep>\n";
  if (!message.intensity.empty()) {
    out << "<Intensity>" << QmsysCodec::EncodeXmlText(message.intensity, kEncoding, false)
        << "</Intensity>\n";
  }
  if (message.urgent) out << "<Urgent/>\n";
  if (!message.colour.empty()) {
    out << "<Colour>" << QmsysCodec::EncodeXmlText(message.colour, kEncoding, false)
        << "</Colour>\n";
  }
  if (message.numberOfRepetitions > 1) {
    out << "<Repetition>\n";
    out << "<Interval_time>" << message.intervalTime << "</Interval_time>\n";
    out << "<Number_of_repetitions>" << message.numberOfRepetitions << "</Number_of_repetitions>\n";
    out << "</Repetition>\n";
  }
  out << "</Indication>\n";
}

}  // namespace

std::string OAXMLMessageBody::Serialize() {
  std::ostringstream out;
  out << "<Message>\n";
  if (!subjectText.empty()) {
    out << "<Subject>" << QmsysCodec::EncodeXmlText(subjectText, kEncoding, true) << "</Subject>\n";
  }
  if (!bodyText.empty()) {
    out << "<Body>" << QmsysCodec::EncodeXmlText(bodyText, kEncoding, true) << "</Body>\n";
  }
  if (updateOnlyExisting) {
    // An update silences the handset; the blank after the end tag is part of
    // the established text.
    out << "<Indication>\n<Intensity>None</Intensity>\n</Indication> \n";
  } else {
    WriteIndication(out, *this);
    if (ttl > 0) out << "<TTL>" << ttl << "</TTL>\n";
    if (priority > 0) out << "<Priority>" << priority << "</Priority>\n";
  }
  out << "</Message>";
  return out.str();
}
