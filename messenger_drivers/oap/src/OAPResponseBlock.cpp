#include "OAPResponseBlock.h"

#include <algorithm>

namespace {

// A decimal element value as a 32-bit status number; a value beyond the range
// reads as the nearest bound, which no status row carries.
int32_t StatusNumber(const XmlReaderWriter::NodeString& value) {
  const long number = value;
  return static_cast<int32_t>(
      std::min<long>(std::max<long>(number, INT32_MIN), static_cast<long>(INT32_MAX)));
}

}  // namespace

const OAPResponseBlock::GenStatus::StatusResponse
    OAPResponseBlock::GenStatus::arrStatusResponses[] = {
        {1, 200, "OK"},
        {1, 300, "Unknown error"},
        {1, 301, "Try again"},
        {1, 320, "Congestion"},
        {1, 400, "Unknown error"},
        {1, 401, "Communication error (deprecated)"},
        {1, 403, "Message not understood"},
        {1, 404, "Address not understood"},
        {1, 405, "Addressee unknown (deprecated)"},
        {1, 406, "Not supported"},
        {1, 407, "Client not registered"},
        {1, 408, "OAP version mismatch"},
        {2, 200, "Present"},
        {2, 400, "General absent"},
        {2, 401, "Do not disturb"},
        {2, 402, "Manual absent"},
        {2, 403, "In meeting"},
        {2, 404, "In storage rack"},
        {3, -99, "Message has not been delivered"},
        {3, 200, "Delivered"},
        {3, 300, "Unknown error"},
        {3, 320, "Congestion"},
        {3, 400, "Unknown error"},
        {3, 401, "Communication error"},
        {3, 403, "Message not understood"},
        {3, 404, "Address not understood"},
        {3, 405, "Deleted, too old"},
        {3, 406, "Addressee is not reachable"},
        {3, 407, "Not supported"},
        {3, 408, "Addressee unknown"},
        {4, 200, "Accepted"},
        {4, 400, "Rejected"},
        {5, 200, "Option selected"},
        {5, 201, "Option selected but truncated data"},
        {5, 400, "No existing interactive message to update"},
};

const size_t OAPResponseBlock::GenStatus::statusResponseCount =
    sizeof(arrStatusResponses) / sizeof(arrStatusResponses[0]);

std::string OAPResponseBlock::GenStatus::GetMessage() const {
  for (size_t row = 0; row < statusResponseCount; ++row) {
    const StatusResponse& entry = arrStatusResponses[row];
    if (entry.type == type && entry.code == code) return entry.text;
  }
  return "Unknown Code";
}

OAPResponseBlock::OAPResponseBlock() : OAPBlock(Response) {}

void OAPResponseBlock::ParseXML(XmlReaderWriter::Node& root) {
  if (!root.hasChild("Status")) return;
  XmlReaderWriter::Node statusNode = root["Status"];
  if (version == "3.0") {
    const std::string statusService = statusNode.attributeValue("service");
    service = statusService;
    serviceName = service;
  }
  status.type = StatusNumber(statusNode["Type"].value());
  status.code = StatusNumber(statusNode["Code"].value());
  if (statusNode.hasChild("Text")) {
    const std::string statusText = statusNode["Text"].value();
    text = statusText;
  }
  if (statusNode.hasChild("TypeSpecific")) {
    XmlReaderWriter::Node typeSpecific = statusNode["TypeSpecific"];
    LoadTypeSpecific(typeSpecific);
  }
}

void OAPResponseBlock::LoadTypeSpecific(XmlReaderWriter::Node& typeSpecific) {
  if (status.type != 4 && status.type != 5) return;
  const std::string sender = typeSpecific["From"].value();
  from = sender;
  if (typeSpecific.hasChild("DataResp")) {
    const std::string reply = typeSpecific["DataResp"].value();
    dataResp = reply;
  } else if (typeSpecific.hasChild("UserResponse")) {
    const std::string reply = typeSpecific["UserResponse"].value();
    userResponse = reply;
  }
}

OAPResponseBlock::~OAPResponseBlock() = default;
