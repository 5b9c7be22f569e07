#ifndef QM_TOOLS_OAPSIM_OAPSIMREPLY_H
#define QM_TOOLS_OAPSIM_OAPSIMREPLY_H

#include <string>

// Writes the documents the simulator sends: the server's answer to a request,
// and what the simulated handset sends to the driver's listener (delivery
// reports and answers). Version 3.0 documents are ISO-8859-1, 4.0 ones UTF-8;
// texts arrive as UTF-8 and are escaped (and for 3.0 converted) here.
class OapSimReply {
 public:
  // OAP-response with one Status; `text` adds a Text line when not empty.
  static std::string Response(const std::string& version, const std::string& idHex, int type,
                              int code, const std::string& text = "");

  // Status class 3 code 200 for the message.
  static std::string DeliveryReport(const std::string& version, const std::string& idHex);

  // A handset's answer: the chosen option's data response, or typed text.
  static std::string Answer(const std::string& version, const std::string& idHex,
                            const std::string& handset, const std::string& value, bool typed);

  // Content escaping for element text (&, <, >).
  static std::string Escape(const std::string& text);
  // UTF-8 to ISO-8859-1; characters beyond it become '?'.
  static std::string ToLatin1(const std::string& utf8);

 private:
  static std::string Declaration(const std::string& version);
  static std::string Text(const std::string& version, const std::string& text);
};

#endif
