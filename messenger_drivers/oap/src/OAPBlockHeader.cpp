#include "OAPBlockHeader.h"

#include <sstream>

#include "QmsysCodec.h"

std::string OAPBlockHeader::Serialize(const std::string& encoding) const {
  auto text = [&encoding](const std::string& value) {
    return QmsysCodec::EncodeXmlText(value, encoding, false);
  };
  std::ostringstream out;
  out << "<Header>\n";
  if (!ip.empty()) out << "<IP>" << text(ip) << "</IP>\n";
  if (port > 0) out << "<Port>" << port << "</Port>\n";
  if (!to.empty()) out << "<To>" << text(to) << "</To>\n";
  if (!fromNumber.empty()) {
    out << "<FromEx>\n<Number>" << text(fromNumber) << "</Number>\n</FromEx>\n";
  }
  if (deliveryStatus) out << "<DeliveryStatus/>\n";
  out << "</Header>\n";
  return out.str();
}
