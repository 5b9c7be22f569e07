#include "OapSimDocument.h"

#include <strings.h>

#include <cstdio>

namespace {

// Raised by the checks below and turned into a verdict by Check.
struct Rejection {
  int code;
  std::string message;
};

[[noreturn]] void Reject(const std::string& message, int code = OapSimDocument::kNotUnderstood) {
  throw Rejection{code, message};
}

using Element = OapSimXml::Element;

const Element& Required(const Element& parent, const std::string& name) {
  const Element* child = parent.Child(name);
  if (child == nullptr) Reject(parent.name + " has no " + name);
  return *child;
}

std::string RequiredText(const Element& parent, const std::string& name) {
  const std::string text = Required(parent, name).text;
  if (text.empty()) Reject(parent.name + " has an empty " + name);
  return text;
}

std::string OptionalText(const Element& parent, const std::string& name) {
  const Element* child = parent.Child(name);
  return child ? child->text : std::string();
}

bool ParseDecimal(const std::string& text, long min, long max, long& value) {
  size_t start = (!text.empty() && text[0] == '-') ? 1 : 0;
  if (text.size() == start || text.size() > start + 10) return false;
  long result = 0;
  for (size_t i = start; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    result = result * 10 + (text[i] - '0');
  }
  value = start ? -result : result;
  return value >= min && value <= max;
}

long RequiredNumber(const std::string& where, const std::string& text, long min, long max) {
  long value = 0;
  if (!ParseDecimal(text, min, max, value)) {
    Reject(where + " '" + text + "' is not a number from " + std::to_string(min) + " to " +
           std::to_string(max));
  }
  return value;
}

void OptionalNumber(const Element& parent, const std::string& name) {
  const Element* child = parent.Child(name);
  if (child) RequiredNumber(name, child->text, -2147483647L - 1, 2147483647L);
}

bool HasDigitsOnly(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// True when the bytes hold a well-formed multi-byte UTF-8 sequence: in a
// document declared ISO-8859-1 that is most likely text in the wrong encoding.
bool HasUtf8Sequence(const std::string& text) {
  for (size_t i = 0; i + 1 < text.size(); ++i) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead >= 0xC2 && lead <= 0xDF ? 2 : lead >= 0xE0 && lead <= 0xEF ? 3 : 0;
    if (length == 0 || i + length > text.size()) continue;
    bool continued = true;
    for (size_t k = 1; k < length; ++k) {
      continued = continued && (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
    }
    if (continued) return true;
  }
  return false;
}

void CheckFunctionKey(const std::string& key, int number) {
  if (key.size() != 1 || key[0] < 'A' || key[0] > 'Z') {
    Reject("option " + std::to_string(number) + " has function key '" + key +
           "', expected one capital letter");
  }
}

}  // namespace

bool OapSimDocument::ParseHexId(const std::string& text, uint32_t& value, std::string& error) {
  if (text.empty()) {
    error = "id is empty";
    return false;
  }
  if (text.find_first_not_of("0123456789abcdef") != std::string::npos) {
    error = "id '" + text + "' is not lower-case hexadecimal";
    return false;
  }
  if (text.size() > 1 && text[0] == '0') {
    error = "id '" + text + "' has leading zeros";
    return false;
  }
  if (text.size() > 8) {
    error = "id '" + text + "' does not fit 32 bits";
    return false;
  }
  value = static_cast<uint32_t>(std::stoul(text, nullptr, 16));
  return true;
}

std::string OapSimDocument::HexId(uint32_t value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "%x", value);
  return buffer;
}

OapSimDocument::Verdict OapSimDocument::Check(const std::string& text, Request& out) {
  out = Request();
  Verdict verdict;
  try {
    OapSimXml xml;
    if (!xml.Parse(text)) Reject("malformed XML: " + xml.Error());
    CheckRoot(*xml.Root(), out);
    CheckDeclaration(xml, out);
    CheckHeader(*xml.Root(), out);
    const Element& body = Required(*xml.Root(), "Body");
    if (out.version == "3.0") {
      CheckBody30(body, out);
      if (HasUtf8Sequence(text)) {
        out.warnings.push_back("ISO-8859-1 document holds what looks like UTF-8 text");
      }
    } else {
      CheckBody40(body, out);
    }
    verdict.ok = true;
  } catch (const Rejection& rejection) {
    verdict.code = rejection.code;
    verdict.error = rejection.message;
  }
  return verdict;
}

void OapSimDocument::CheckRoot(const Element& root, Request& out) {
  if (root.name != "OAP-request") Reject("root element is " + root.name + ", not OAP-request");
  if (!root.HasAttribute("version")) Reject("OAP-request has no version");
  const std::string version = root.Attribute("version");
  if (version != "3.0" && version != "4.0") {
    Reject("unsupported OAP version '" + version + "'", kVersionMismatch);
  }
  out.version = version;
  if (!root.HasAttribute("id")) Reject("OAP-request has no id");
  std::string error;
  if (!ParseHexId(root.Attribute("id"), out.id, error)) Reject("OAP-request " + error);
  out.idHex = root.Attribute("id");
  out.tracking = out.id;
}

void OapSimDocument::CheckDeclaration(const OapSimXml& xml, Request& out) {
  if (!xml.HasDeclaration()) Reject("no XML declaration");
  if (xml.DeclarationVersion() != "1.0") {
    Reject("XML declaration version '" + xml.DeclarationVersion() + "', expected 1.0");
  }
  const char* expected = out.version == "3.0" ? "ISO-8859-1" : "UTF-8";
  if (strcasecmp(xml.DeclarationEncoding().c_str(), expected) != 0) {
    Reject("version " + out.version + " document declares encoding '" + xml.DeclarationEncoding() +
           "', expected " + expected);
  }
}

void OapSimDocument::CheckHeader(const Element& root, Request& out) {
  const Element& header = Required(root, "Header");
  out.listenerPort =
      static_cast<int>(RequiredNumber("Header Port", RequiredText(header, "Port"), 1, 65535));
  if (out.version == "3.0") {
    out.listenerIp = RequiredText(header, "IP");
  } else {
    out.handset = RequiredText(header, "To");
  }
  if (const Element* from = header.Child("FromEx")) out.fromNumber = RequiredText(*from, "Number");
  out.deliveryStatus = header.Child("DeliveryStatus") != nullptr;
}

void OapSimDocument::CheckBody30(const Element& body, Request& out) {
  const std::string service = body.Attribute("service");
  if (service != "message" && service != "interactiveMessage") {
    Reject("3.0 Body service '" + service + "', expected message or interactiveMessage");
  }
  out.interactive = service == "interactiveMessage";
  out.handset = RequiredText(body, "To");
  out.subject = OptionalText(body, "SubjectText");
  out.text = Required(body, "BodyText").text;
  OptionalNumber(body, "Priority");
  OptionalNumber(body, "TTL");
  if (const Element* update = body.Child("Update")) {
    if (update->text != "OnlyExisting") {
      Reject("3.0 Update '" + update->text + "', expected OnlyExisting");
    }
    out.update = true;
  }
  if (body.Child("DeliveryStatus")) out.deliveryStatus = true;

  const auto options = body.Children("Option");
  if (!options.empty() && !out.interactive) {
    Reject("3.0 Body with options must have service interactiveMessage");
  }
  int number = 0;
  for (const Element* option : options) CheckOption30(*option, ++number, out);
}

void OapSimDocument::CheckOption30(const Element& element, int number, Request& out) {
  const std::string where = "option " + std::to_string(number);
  if (element.Attribute("id") != std::to_string(number)) {
    Reject(where + " has id '" + element.Attribute("id") + "'");
  }
  Option option;
  option.number = number;
  option.text = RequiredText(element, "Text");
  const Element& selection = Required(element, "OnSelection");
  const Element* data = selection.Child("DataResp");
  const Element* typed = selection.Child("UserResponse");
  if ((data == nullptr) == (typed == nullptr)) {
    Reject(where + " needs exactly one of DataResp and UserResponse");
  }
  if (data) {
    option.dataResp = data->text;
  } else {
    option.kind = Option::Custom;
    option.label = typed->text;
  }
  option.callNo = OptionalText(selection, "CallNo");
  option.key = Required(element, "FuncKeyId").text;
  CheckFunctionKey(option.key, number);
  out.options.push_back(option);
}

void OapSimDocument::CheckBody40(const Element& body, Request& out) {
  if (body.Attribute("service") != "OA-XML") {
    Reject("4.0 Body service '" + body.Attribute("service") + "', expected OA-XML");
  }
  const Element& service = Required(body, "service");
  if (service.Attribute("version") != "1.0") {
    Reject("OA-XML service version '" + service.Attribute("version") + "', expected 1.0");
  }
  uint32_t envelopeId = 0;
  if (const Element* id = service.Child("Id")) {
    std::string error;
    if (!ParseHexId(id->text, envelopeId, error)) Reject("OA-XML envelope " + error);
    out.hasEnvelopeId = true;
  }
  const Element* message = service.Child("Message");
  const Element* interactive = service.Child("Interactive_Message");
  if ((message == nullptr) == (interactive == nullptr)) {
    Reject("OA-XML service needs exactly one of Message and Interactive_Message");
  }
  if (message) {
    CheckMessage40(*message, out);
  } else {
    out.interactive = true;
    CheckInteractive40(*interactive, out);
  }
  if (out.update && !out.hasEnvelopeId) Reject("4.0 update without envelope Id");
  if (out.hasEnvelopeId && !out.update && envelopeId != out.id) {
    out.warnings.push_back("envelope Id " + HexId(envelopeId) + " differs from request id " +
                           out.idHex);
  }
  if (out.hasEnvelopeId) out.tracking = envelopeId;
}

void OapSimDocument::CheckMessage40(const Element& message, Request& out) {
  out.subject = OptionalText(message, "Subject");
  out.text = OptionalText(message, "Body");
  Required(message, "Indication");
  OptionalNumber(message, "TTL");
  OptionalNumber(message, "Priority");
}

void OapSimDocument::CheckInteractive40(const Element& interactive, Request& out) {
  CheckMessage40(Required(interactive, "Message"), out);
  out.update = interactive.Child("Update") != nullptr;
  int number = 0;
  for (const Element* option : interactive.Children("Option")) {
    if (option->children.empty()) {
      if (!out.update) Reject("empty Option outside an update");
      out.wipeOptions = true;
      continue;
    }
    CheckOption40(*option, ++number, out);
  }
  if (out.wipeOptions && number > 0) Reject("update wipes the options but also lists some");
}

void OapSimDocument::CheckOption40(const Element& element, int number, Request& out) {
  const std::string where = "option " + std::to_string(number);
  const std::string id = RequiredText(element, "ID");
  if (!HasDigitsOnly(id) || id != std::to_string(number)) Reject(where + " has ID '" + id + "'");
  Option option;
  option.number = number;
  option.text = RequiredText(element, "Text");
  option.key = Required(element, "Function_key_ID").text;
  CheckFunctionKey(option.key, number);
  const Element& selection = Required(element, "On_selection");
  const Element* data = selection.Child("Data_response");
  const Element* typed = selection.Child("User_response");
  const Element* close = selection.Child("Close_message");
  if ((data != nullptr) + (typed != nullptr) + (close != nullptr) != 1) {
    Reject(where + " needs exactly one of Data_response, User_response and Close_message");
  }
  if (data) {
    option.dataResp = data->text;
  } else if (typed) {
    option.kind = Option::Custom;
    option.label = Required(*typed, "Text_label").text;
  } else {
    option.kind = Option::Close;
  }
  if (const Element* call = selection.Child("Call_number")) {
    option.callNo = RequiredText(*call, "Digits");
  }
  out.options.push_back(option);
}
