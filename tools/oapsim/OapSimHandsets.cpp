#include "OapSimHandsets.h"

#include "QmToolTrackingId.h"

OapSimHandsets::Outcome OapSimHandsets::Store(const OapSimDocument::Request& request,
                                              const std::string& driverHost) {
  auto handset = m_handsets.find(request.handset);
  const bool known = handset != m_handsets.end() && handset->second.count(request.tracking) != 0;
  if (request.update && !known) return UnknownUpdate;

  Message& message = m_handsets[request.handset][request.tracking];
  const bool hadOptions = !message.options.empty();
  const Outcome outcome = request.update ? Updated : (known ? Reused : Added);
  if (outcome != Updated) {
    message = Message();
    message.tracking = request.tracking;
    message.handset = request.handset;
    message.interactive = request.interactive;
  } else {
    ++message.updates;
    message.wiped = request.wipeOptions || (hadOptions && request.options.empty());
  }
  message.version = request.version;
  message.subject = request.subject;
  message.text = request.text;
  message.options = request.options;
  message.driverHost = driverHost;
  message.driverPort = request.listenerPort;
  return outcome;
}

OapSimHandsets::Message* OapSimHandsets::FindMutable(uint32_t tracking) {
  // Safe: this object is not const here, only the lookup is shared.
  return const_cast<Message*>(static_cast<const OapSimHandsets*>(this)->Find(tracking));
}

const OapSimHandsets::Message* OapSimHandsets::Find(uint32_t tracking) const {
  for (const auto& handset : m_handsets) {
    auto found = handset.second.find(tracking);
    if (found != handset.second.end()) return &found->second;
  }
  return nullptr;
}

std::vector<const OapSimHandsets::Message*> OapSimHandsets::All() const {
  std::vector<const Message*> all;
  for (const auto& handset : m_handsets) {
    for (const auto& message : handset.second) all.push_back(&message.second);
  }
  return all;
}

void OapSimHandsets::MarkDelivered(uint32_t tracking) {
  if (Message* message = FindMutable(tracking)) message->delivered = true;
}

void OapSimHandsets::AddAnswer(uint32_t tracking, const std::string& answer) {
  if (Message* message = FindMutable(tracking)) message->answers.push_back(answer);
}

std::string OapSimHandsets::Describe(const Message& message) {
  std::string line = message.version + " message " + QmToolTrackingId::Format(message.tracking) +
                     " to " + message.handset + ":";
  if (!message.subject.empty()) line += " subject " + Quote(message.subject);
  line += " text " + Quote(message.text);
  const std::string options = DescribeOptions(message.options);
  if (!options.empty()) line += " " + options;
  return line;
}

std::string OapSimHandsets::DescribeUpdate(const Message& message) {
  std::string line = message.version + " update of " + QmToolTrackingId::Format(message.tracking) +
                     " to " + message.handset + ": ";
  if (message.wiped) line += "options wiped, ";
  line += "text now " + Quote(message.text);
  const std::string options = DescribeOptions(message.options);
  if (!options.empty()) line += " " + options;
  return line;
}

std::string OapSimHandsets::DescribeOptions(const std::vector<OapSimDocument::Option>& options) {
  std::string listed;
  std::string custom;
  for (const auto& option : options) {
    if (option.kind == OapSimDocument::Option::Custom) {
      custom += " custom " + Quote(option.label);
      continue;
    }
    if (!listed.empty()) listed += ", ";
    listed += std::to_string(option.number) + ":" + option.text;
    if (option.kind == OapSimDocument::Option::Close) {
      listed += "(closes)";
    } else {
      listed += "->" + option.dataResp;
    }
    if (!option.callNo.empty()) listed += " call " + option.callNo;
  }
  std::string text = listed.empty() ? std::string() : "options [" + listed + "]";
  if (!custom.empty()) text += text.empty() ? custom.substr(1) : custom;
  return text;
}

std::string OapSimHandsets::Quote(const std::string& text) {
  std::string quoted = "'";
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;  // CR LF as one break
    if (c == '\r') {
      quoted += "\\r";
    } else if (c == '\n') {
      quoted += "\\n";
    } else if (c == '\t') {
      quoted += "\\t";
    } else if (static_cast<unsigned char>(c) < 0x20) {
      quoted += '?';
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}
