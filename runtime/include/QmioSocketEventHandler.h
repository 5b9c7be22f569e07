#ifndef QM_RUNTIME_QMIOSOCKETEVENTHANDLER_H
#define QM_RUNTIME_QMIOSOCKETEVENTHANDLER_H

#include "Qmobject.h"

class QmioSocket;

// Receives the events of one socket. A socket owns its handler; the user
// data pointer is not owned. After a data event the socket pool deletes the
// socket, unless the handler asked to keep the connection open: then the
// pool watches it again and sends the next data event when more data comes.
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
  // Whether the connection stays open after the event that is ending.
  bool KeepConnection() const { return m_keepConnection; }

 protected:
  void SetKeepConnection(bool keep) { m_keepConnection = keep; }

 private:
  void* m_userData = nullptr;
  bool m_keepConnection = false;
};

#endif
