#ifndef QM_RUNTIME_QMIOSOCKETEVENTHANDLER_H
#define QM_RUNTIME_QMIOSOCKETEVENTHANDLER_H

#include "Qmobject.h"

class QmioSocket;

// Receives the events of one socket. A socket owns its handler; the user
// data pointer is not owned.
class QmioSocketEventHandler : public Qmobject {
 public:
  enum SocketEvent {
    EVENT_DATA_READY = 0,  // data waits on the socket (sent by the socket pool)
    EVENT_ACCEPTED = 2     // a server socket accepted a connection
  };

  ~QmioSocketEventHandler() override;
  virtual void OnSocketEvent(QmioSocket* socket, SocketEvent event, void* data) = 0;

  void SetUserData(void* data) { m_userData = data; }
  void* GetUserData() const { return m_userData; }

 private:
  void* m_userData = nullptr;
};

#endif
