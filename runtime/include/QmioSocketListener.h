#ifndef QM_RUNTIME_QMIOSOCKETLISTENER_H
#define QM_RUNTIME_QMIOSOCKETLISTENER_H

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "QmThreadModule.h"

class QmioServerSocket;
class QmioSocket;
class QmioSocketEventHandler;
class QmioSocketPool;

// A TCP server as a thread module: its thread accepts connections (each as
// soon as it arrives), asks the derived class whether to take each one and
// which handler to give it, and hands it to a socket pool whose workers run
// the handlers. When the pool is full the listener makes room (see
// QmioSocketPool::AddSocketMakingRoom) or waits for it; it never stops
// accepting while it runs, except when its listening socket stops listening
// (then its thread ends). A stop request ends the thread within about 0.1 s.
// Owns the listening socket and the pool.
class QmioSocketListener : public QmThreadModule {
 public:
  QmioSocketListener(int socketLimit, int threadCount);
  ~QmioSocketListener() override;

  // Makes the listening socket and the pool and starts the pool.
  bool InitializeSpecial() override;
  // Shuts the listening socket and stops the pool (2000 ms).
  bool FinalizeSpecial() override;
  // Binds (port 0 takes an ephemeral port), listens and starts the thread.
  bool Listen(int port, const std::string& host);
  void DoThreadWork() override;

  // Whether to take the accepted connection.
  virtual bool OnConnection(QmioSocket* accepted) = 0;
  // A new handler for a taken connection; the socket will own it.
  virtual QmioSocketEventHandler* GetHandler() = 0;

  // The bound port, or -1 before Listen.
  int GetListeningPort() const;
  // How long a connection may wait without sending anything before it is
  // closed (30000 ms unless set); takes effect at once.
  void SetIdleTimeout(int timeoutMs);
  // Whether the accept loop has ended (a stop request, or a listening socket
  // that stopped listening). Cheap enough to ask on every host call.
  bool HasEnded() const { return m_ended.load(); }

 private:
  bool AcceptOnce();
  void TakeConnection(QmioSocket* socket);

  int m_threadCount;
  int m_socketLimit;
  int m_idleTimeoutMs;
  std::chrono::steady_clock::time_point m_lastStopCheck;
  std::atomic<bool> m_ended{false};
  std::unique_ptr<QmioServerSocket> m_serverSocket;
  std::unique_ptr<QmioSocketPool> m_pool;
};

#endif
