#include "OapSimReply.h"

std::string OapSimReply::Declaration(const std::string& version) {
  return std::string("<?xml version=\"1.0\" encoding=\"") +
         (version == "3.0" ? "ISO-8859-1" : "UTF-8") + "\"?>\n";
}

std::string OapSimReply::Text(const std::string& version, const std::string& text) {
  return Escape(version == "3.0" ? ToLatin1(text) : text);
}

std::string OapSimReply::Response(const std::string& version, const std::string& idHex, int type,
                                  int code, const std::string& text) {
  std::string document = Declaration(version) + "<OAP-response version=\"" + version + "\"";
  if (!idHex.empty()) document += " id=\"" + idHex + "\"";
  document += ">\n";
  document += version == "3.0" ? "<Status service=\"message\">\n" : "<Status>\n";
  document += "<Type>" + std::to_string(type) + "</Type>\n";
  document += "<Code>" + std::to_string(code) + "</Code>\n";
  if (!text.empty()) document += "<Text>" + Text(version, text) + "</Text>\n";
  document += "</Status>\n</OAP-response>";
  return document;
}

std::string OapSimReply::DeliveryReport(const std::string& version, const std::string& idHex) {
  return Response(version, idHex, 3, 200);
}

std::string OapSimReply::Answer(const std::string& version, const std::string& idHex,
                                const std::string& handset, const std::string& value, bool typed) {
  if (version == "3.0") {
    const char* tag = typed ? "UserResponse" : "DataResp";
    return Declaration(version) + "<OAP-response version=\"3.0\" id=\"" + idHex + "\">\n" +
           "<Status service=\"message\">\n<Type>5</Type>\n<Code>200</Code>\n" +
           "<TypeSpecific>\n<From>" + Text(version, handset) + "</From>\n<" + tag + ">" +
           Text(version, value) + "</" + tag + ">\n</TypeSpecific>\n</Status>\n</OAP-response>";
  }
  const char* tag = typed ? "User_response" : "Data_response";
  return Declaration(version) + "<OAP-request version=\"" + version + "\" id=\"" + idHex + "\">\n" +
         "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>" + idHex +
         "</Id>\n<Interactive_Message_Response>\n<" + tag + ">" + Text(version, value) + "</" +
         tag + ">\n</Interactive_Message_Response>\n</service>\n</Body>\n</OAP-request>";
}

std::string OapSimReply::Escape(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string OapSimReply::ToLatin1(const std::string& utf8) {
  std::string latin1;
  for (size_t i = 0; i < utf8.size();) {
    const unsigned char lead = static_cast<unsigned char>(utf8[i]);
    size_t length = 1;
    if (lead >= 0xF0) {
      length = 4;
    } else if (lead >= 0xE0) {
      length = 3;
    } else if (lead >= 0xC0) {
      length = 2;
    }
    if (lead < 0x80) {
      latin1 += static_cast<char>(lead);
    } else if (length == 2 && lead <= 0xC3 && i + 1 < utf8.size()) {
      const unsigned char next = static_cast<unsigned char>(utf8[i + 1]);
      latin1 += static_cast<char>(((lead & 0x1F) << 6) | (next & 0x3F));
    } else {
      latin1 += '?';
    }
    i += length;
  }
  return latin1;
}
