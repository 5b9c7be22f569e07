#ifndef QM_OAP_OAPMESSAGESERVICEHANDLER_H
#define QM_OAP_OAPMESSAGESERVICEHANDLER_H

#include <list>
#include <memory>
#include <string>

#include "OAPServiceHandlerInterface.h"

class OAPClient;
class OAPResponseBlock;
class QmLogInterface;

// The message service: builds version 3.0 and 4.0 request blocks for plain
// and interactive messages, and turns delivery reports and handset answers
// into the state of its device controller. Has no state of its own beyond
// the (not owned) device context; tracking numbers come from the client that
// the device controller dispatches through. Every public operation traces its
// call through the device's logger.
class OAPMessageServiceHandler : public OAPServiceHandlerInterface {
 public:
  // An outgoing message as the host job gives it: subject, text and the
  // labels of the options offered (in order).
  class OAPMsgServicePayLoadRequest : public OAPServicePayLoadRequest {
   public:
    OAPMsgServicePayLoadRequest() = default;
    OAPMsgServicePayLoadRequest(const std::string& requestVersion, const std::string& subjectText,
                                const std::string& bodyText,
                                const std::list<std::string>& optionLabels);
    ~OAPMsgServicePayLoadRequest() override;

    std::string subject;
    std::string body;
    std::list<std::string> options;
  };

  OAPMessageServiceHandler() = default;
  ~OAPMessageServiceHandler() override;

  void Handle(OAPBlock* block) override;
  // Null when there is no device context with a client, or when the request
  // is not a message request.
  OAPBlock* BuildPayLoad(OAPServicePayLoadRequest* request) override;
  OAPBlock* BuildPayLoad(OAPBlockBody* body) override;

  // The four shapes. Each draws tracking numbers from the client's counter
  // and needs a device context with a client (callers go through
  // BuildPayLoad, which checks that).
  OAPBlock* BuildV3PayLoad(OAPMsgServicePayLoadRequest* request);
  OAPBlock* BuildV3PayLoad(OAPBlockBody* body);
  OAPBlock* BuildV4PayLoad(OAPMsgServicePayLoadRequest* request);
  OAPBlock* BuildV4PayLoad(OAPBlockBody* body);

 private:
  std::shared_ptr<OAPClient> Client() const;
  QmLogInterface* Logger() const;
  std::unique_ptr<OAPBlock> StartBlock(bool version4) const;
  void HandleResponse(const OAPResponseBlock& response);
  void HandleRequest(const OAPBlock& request);
};

#endif
