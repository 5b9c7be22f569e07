#ifndef QM_OAP_OAPSERVICEHANDLERINTERFACE_H
#define QM_OAP_OAPSERVICEHANDLERINTERFACE_H

#include <string>

#include "OAPServicePayLoadRequest.h"

class OAPBlock;
class OAPBlockBody;
class OAPDeviceController;

// A service handler stands between a device controller and the block model:
// outbound it builds complete request blocks, inbound it turns parsed blocks
// into message state of its device. The device controller is not owned.
class OAPServiceHandlerInterface {
 public:
  OAPServiceHandlerInterface() = default;
  OAPServiceHandlerInterface(const OAPServiceHandlerInterface&) = delete;
  OAPServiceHandlerInterface& operator=(const OAPServiceHandlerInterface&) = delete;

  // Takes no ownership of the block.
  virtual void Handle(OAPBlock* block) = 0;
  virtual void SetDeviceContext(OAPDeviceController* context);
  // Both return a new request block owned by the caller (null when the
  // handler has no device context); neither takes ownership of its argument.
  virtual OAPBlock* BuildPayLoad(OAPServicePayLoadRequest* request) = 0;
  virtual OAPBlock* BuildPayLoad(OAPBlockBody* body) = 0;
  virtual ~OAPServiceHandlerInterface();

  // A new handler for the service, owned by the caller. There is one kind of
  // service today, so every name and version yields a message handler.
  static OAPServiceHandlerInterface* GetServiceHandler(const std::string& serviceName,
                                                       const std::string& version);

 protected:
  OAPDeviceController* deviceContext = nullptr;
};

#endif
