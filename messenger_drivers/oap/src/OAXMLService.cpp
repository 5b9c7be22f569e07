#include "OAXMLService.h"

#include <memory>
#include <sstream>

#include "InterActiveMessageResponse.h"
#include "QmString.h"

OAXMLService::OAXMLService() {
  serviceName = "OA-XML";
}

OAXMLService::~OAXMLService() {
  delete content;
}

std::string OAXMLService::GetServiceName() const {
  return content != nullptr ? content->GetServiceName() : std::string();
}

void OAXMLService::ParseXML(XmlReaderWriter::Node& element) {
  if (!element.hasChild("service")) return;
  XmlReaderWriter::Node service = element["service"];
  const unsigned count = service.getChildrenCount();
  for (unsigned index = 0; index < count; ++index) {
    XmlReaderWriter::Node child = service[index];
    const std::string childName = child.name();
    if (childName == "Id") {
      const std::string value = child.value();
      id = QmHexStrToUInt(value);
    } else if (childName == "Interactive_Message_Response") {
      // A later answer replaces an earlier one.
      std::unique_ptr<OAPBlockBody> answer(new InterActiveMessageResponse());
      delete content;
      content = answer.release();
      content->ParseXML(child);
    }
  }
}

std::string OAXMLService::Serialize() {
  std::ostringstream out;
  out << "<Body service=\"OA-XML\">\n";
  out << "<service version=\"1.0\">\n";
  if (id != 0) out << "<Id>" << std::hex << id << std::dec << "</Id>\n";
  if (content != nullptr) out << content->Serialize() << "\n";
  out << "</service>\n";
  out << "</Body>\n";
  return out.str();
}
