#ifndef QM_OAP_OAPCLIENT_H
#define QM_OAP_OAPCLIENT_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "QmPlainModule.h"

class MessageBody;
class OAPBlock;
class OAPListener;
class OAPMessageStore;
class OAPMessageSweeper;
class QmioSocket;

// The module the driver owns for its whole life: it starts and stops the
// inbound listener, leads the driver's sends and queries to the device
// registry, and performs the one outbound exchange with an OAP server
// (DispatchPayLoad). It keeps the process's tracking-number counter.
//
// Owns the listener from InitializeSpecial to FinalizeSpecial, and while it
// runs keeps the message store it was given within its bounds. Made and held
// through std::shared_ptr: device controllers refer to it weakly, so that a
// client being let go never leaves them a dangling pointer. Sends, queries
// and dispatches may run on many threads at once: each dispatch uses a
// socket of its own and the counter is drawn atomically.
class OAPClient : public QmPlainModule, public std::enable_shared_from_this<OAPClient> {
 public:
  // Stores the listener's port and address and draws a random tracking base.
  OAPClient(int port, const std::string& address);
  // Stops a listener that was not finalised, and detaches the client from
  // the device registry.
  ~OAPClient() override;

  // The store the device registry keeps message state in from
  // InitializeSpecial on, with the age (minutes) and the number of messages
  // beyond which messages are forgotten. Without one the registry keeps its
  // store and nothing is swept. Called before Initialize.
  void SetMessageStore(std::shared_ptr<OAPMessageStore> store, int retentionMinutes, size_t limit);

  bool InitializeSpecial() override;
  // Shuts down the sockets of the exchanges under way (their sends and echoes
  // fail with "OAP Client not set up" at once instead of waiting on a silent
  // server), then stops the sweeper and the listener.
  bool FinalizeSpecial() override;
  std::string GetRunningModuleName() override;

  // Sends the message through the controller of the body's device address
  // (created on first use). The body passes to the controller, which frees
  // it unless it keeps it with the message's status: the caller must not use
  // it afterwards. Returns the tracking number, 0 without a body. The
  // controller's exceptions pass to the caller.
  unsigned long SendAMessage(MessageBody* body);
  // The state of a message (MsgState); 0 for an unknown device.
  int GetStatus(const std::string& device, unsigned long tracking);
  // The replies to a message that arrived since the last query.
  std::list<std::string> QueryResponse(const std::string& device, unsigned long tracking);
  // Sends an update that shows the message under `tracking` without its
  // options. The result of the send is not reported.
  void WipeOptions(unsigned long tracking);
  // One exchange: connects, writes the request, reads the answer until it is
  // one whole document (at most 64 KiB), the server closes or 2000 ms have
  // passed, and parses it. Returns a block owned by the caller, or null when
  // nothing usable came back. Socket exceptions (such as a refused
  // connection, or a close before any answer) pass to the caller; an
  // exchange that FinalizeSpecial cut, or that begins after it, throws
  // "OAP Client not set up".
  OAPBlock* DispatchPayLoad(const std::string& host, int port, OAPBlock* request);

  // The next tracking number: read, then incremented by one. 0 is skipped
  // when the counter wraps: it stands for a failed send. Numbers come from
  // blocks of 65536 in which the store knew no message when the counter
  // entered them; the counter moves on to a random free block when the next
  // block holds messages from before.
  uint32_t NextTrackingNumber();
  // The port the running listener is bound to, -1 without a listener.
  int GetListeningPort() const;
  // True while the listener runs. A listener whose thread has ended without
  // FinalizeSpecial is reported once at critical level and started again,
  // at once and then at most once per pause (1 s, doubling up to 60 s)
  // until it runs; false meanwhile.
  bool KeepListenerUp();

  // Port and local address of the inbound listener; fixed at construction.
  const int Port;
  const std::string Address;
  // The tracking-number counter of this process.
  std::atomic<uint32_t> TrackingBase;

 private:
  // Whether the counter may issue `number`; moves it to a free block when
  // the number's block holds stored messages.
  bool MayIssue(uint32_t number);
  std::shared_ptr<OAPMessageStore> StoreInUse();

  // Registers the socket of an exchange so that FinalizeSpecial can shut it
  // down; false once FinalizeSpecial has begun. EndExchange unregisters it
  // (before it is closed) and tells whether it was shut down.
  bool BeginExchange(QmioSocket* socket);
  bool EndExchange(QmioSocket* socket);
  void CutExchanges();

  // Starts a new listener (logging why it cannot); stops and deletes it.
  bool StartListener();
  bool StopListener();

  // Guards the listener and its restart state: host threads may check and
  // restart it while another stops it.
  mutable std::recursive_mutex m_listenerMutex;
  std::unique_ptr<OAPListener> Listener;
  // Whether the listener's thread was started (and so must be stopped).
  bool m_listenerStarted = false;
  // Its thread ended by itself; it is started again at m_nextRestart.
  bool m_listenerDown = false;
  std::chrono::steady_clock::time_point m_nextRestart;
  int m_restartPauseMs = 0;

  std::shared_ptr<OAPMessageStore> m_store;
  int m_retentionMinutes = 0;
  size_t m_storeLimit = 0;
  // Made by the first InitializeSpecial; runs until FinalizeSpecial.
  std::unique_ptr<OAPMessageSweeper> m_sweeper;
  // The block (number >> 16) checked last; kNoBlock before the first.
  static const uint32_t kNoBlock = 0x10000;
  std::atomic<uint32_t> m_checkedBlock{kNoBlock};
  std::mutex m_blockMutex;

  std::mutex m_exchangeMutex;
  std::set<QmioSocket*> m_exchanges;  // guarded by m_exchangeMutex
  bool m_exchangesCut = false;        // guarded by m_exchangeMutex
};

#endif
