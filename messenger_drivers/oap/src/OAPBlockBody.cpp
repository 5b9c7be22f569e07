#include "OAPBlockBody.h"

std::string OAPBlockBody::GetServiceName() const {
  return serviceName;
}

void OAPBlockBody::ParseXML(XmlReaderWriter::Node& /*element*/) {}

std::string OAPBlockBody::Serialize() {
  return std::string();
}

OAPBlockBody::~OAPBlockBody() = default;
