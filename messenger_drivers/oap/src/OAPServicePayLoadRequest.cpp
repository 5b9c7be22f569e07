#include "OAPServicePayLoadRequest.h"

OAPServicePayLoadRequest::OAPServicePayLoadRequest(const std::string& requestVersion)
    : version(requestVersion) {}

OAPServicePayLoadRequest::~OAPServicePayLoadRequest() = default;

std::string OAPServicePayLoadRequest::GetVersion() const {
  return version;
}
