#include "OAPBlockHeader.h"

#include <sstream>

std::string OAPBlockHeader::Serialize() {
  std::ostringstream out;
  out << "<Header>\n";
  if (!ip.empty()) out << "<IP>" << ip << "</IP>\n";
  if (port > 0) out << "<Port>" << port << "</Port>\n";
  if (!to.empty()) out << "<To>" << to << "</To>\n";
  if (!fromNumber.empty()) {
    out << "<FromEx>\n<Number>" << fromNumber << "</Number>\n</FromEx>\n";
  }
  if (deliveryStatus) out << "<DeliveryStatus/>\n";
  out << "</Header>\n";
  return out.str();
}
