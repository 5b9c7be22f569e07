#include "OAPRequestBlock.h"

#include <sstream>

#include "OAPBlockBody.h"
#include "OAPBlockHeader.h"
#include "OAXMLService.h"

OAPRequestBlock::OAPRequestBlock() : OAPBlock(Request) {}

void OAPRequestBlock::ParseXML(XmlReaderWriter::Node& root) {
  if (root.hasChild("Header")) SetHeader(new OAPBlockHeader());
  if (!root.hasChild("Body")) return;
  XmlReaderWriter::Node bodyNode = root["Body"];
  if (!(bodyNode.attributeValue("service") == "OA-XML")) return;
  OAXMLService* service = new OAXMLService();
  SetBody(service);
  service->ParseXML(bodyNode);
  id = service->id;
}

std::string OAPRequestBlock::Serialize() {
  std::ostringstream out;
  out << "<?xml version=\"1.0\" encoding=\"" << GetEncoding() << "\"?>\n";
  out << "<OAP-request version=\"" << GetServiceVersion() << "\" id=\"" << std::hex << GetID()
      << std::dec << "\">\n";
  // A block built without header or body writes nothing for the missing part
  // rather than failing.
  if (header != nullptr) out << header->Serialize(GetEncoding());
  if (body != nullptr) out << body->Serialize();
  out << "</OAP-request>";
  return out.str();
}

OAPRequestBlock::~OAPRequestBlock() = default;
