#ifndef QM_OAP_OAPSERVICEPAYLOADREQUEST_H
#define QM_OAP_OAPSERVICEPAYLOADREQUEST_H

#include <string>

// Description of an outgoing message as a host job gives it, before a service
// handler turns it into a request block. Only the protocol version is common
// to every service; "4.0" selects the 4.0 shape, anything else 3.0.
class OAPServicePayLoadRequest {
 public:
  OAPServicePayLoadRequest() = default;
  explicit OAPServicePayLoadRequest(const std::string& requestVersion);
  virtual ~OAPServicePayLoadRequest();

  virtual std::string GetVersion() const;

  std::string version;
};

#endif
