#include "InterActiveMessageResponse.h"

InterActiveMessageResponse::InterActiveMessageResponse() {
  serviceName = "InterActiveMessageResponse";
}

void InterActiveMessageResponse::ParseXML(XmlReaderWriter::Node& element) {
  if (element.hasChild("Data_response")) {
    const std::string value = element["Data_response"].value();
    dataResponse = value;
  } else if (element.hasChild("User_response")) {
    const std::string value = element["User_response"].value();
    userResponse = value;
  }
}
