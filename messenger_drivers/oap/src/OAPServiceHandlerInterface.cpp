#include "OAPServiceHandlerInterface.h"

#include "OAPMessageServiceHandler.h"

OAPServiceHandlerInterface::~OAPServiceHandlerInterface() = default;

void OAPServiceHandlerInterface::SetDeviceContext(OAPDeviceController* context) {
  deviceContext = context;
}

OAPServiceHandlerInterface* OAPServiceHandlerInterface::GetServiceHandler(
    const std::string& /*serviceName*/, const std::string& /*version*/) {
  return new OAPMessageServiceHandler();
}
