#ifndef QM_RUNTIME_QMIOSOCKET_H
#define QM_RUNTIME_QMIOSOCKET_H

#include <cstdint>
#include <ctime>
#include <string>

#include "QmLogInterface.h"
#include "Qmobject.h"

struct pollfd;
class QmioSocketEventHandler;

// poll() that goes on waiting for the rest of the time when a signal
// interrupts it. -1 waits without limit; any other negative time-out is 0.
// Returns poll's result (-1 only for a failure other than EINTR).
int QmPollRestarting(pollfd* entries, unsigned int count, int timeoutMs);

// A blocking IPv4 socket: time-limited reads, whole-buffer writes and traffic
// tracing ("=> %s" received, "<= %s" sent) through an optional logger. Waits
// use poll, so any descriptor number works; a signal never ends a wait, read
// or write (EINTR is restarted).
// Failures throw QmioException whose path is the remote end.
// The socket owns its event handler (deleted with the socket); the logger is
// not owned. One thread uses a socket at a time.
class QmioSocket : public Qmobject {
 public:
  // Result of every wait and read.
  enum SocketStatus : int {
    SOCKET_DONE = 32,         // data was read or the read ended normally
    SOCKET_READ_READY = 33,   // ready to read
    SOCKET_WRITE_READY = 34,  // ready to write
    SOCKET_TIMEOUT = 35,      // timed out
    SOCKET_FAILED = 36        // failed or closed
  };
  enum SocketType : int { SOCKET_TCP = 0, SOCKET_UDP = 1, SOCKET_RAW_ICMP = 2 };

  QmioSocket();
  ~QmioSocket() override;  // deletes the handler, then closes the descriptor
  QmioSocket(const QmioSocket&) = delete;
  QmioSocket& operator=(const QmioSocket&) = delete;

  // Closes the descriptor once; later calls (and the destructor) do nothing.
  virtual void Close();

  static bool InitialLibrary();
  static bool CloseLibrary();

  // Any descriptor number. -1 waits without limit; any other negative
  // time-out is 0. A signal does not end the wait.
  SocketStatus Wait(bool read, bool write, int timeoutMs);
  // One recv of at most `size` bytes; -1 with status 35 on time-out.
  int Read(unsigned char* buffer, unsigned int size, int timeoutMs, SocketStatus& status,
           bool quiet);
  // One byte, or 255 when not exactly one byte was read.
  unsigned char ReadChar(int timeoutMs, SocketStatus& status, bool quiet);
  // Up to and including a line feed; stops early on time-out or failure.
  std::string ReadLine(int timeoutMs, SocketStatus& status);
  // Up to a line feed (not kept), skipping CR and NUL, without time-out.
  std::string ReadLine(SocketStatus& status, int maxLength);
  // Up to and including the NUL-terminated `terminator` sequence.
  std::string ReadTill(unsigned char* terminator, int timeoutMs, SocketStatus& status);

  int Write(unsigned char* data, unsigned int size);
  int Write(const std::string& data);
  int WriteFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));

  bool SetNonBlockingMode();
  static int QmAsciiToPort(char* service, char* protocol);
  static int GetErrorCode();
  // Resolves a host name or dotted address (thread-safe); `address` receives
  // the first IPv4 address in network byte order.
  static bool ResolveHost(const std::string& host, uint32_t& address);

  // Stores the handler only when none is stored yet.
  bool SetEventHandler(QmioSocketEventHandler* handler);
  QmioSocketEventHandler* GetEventHandler() const { return m_handler; }
  int GetSocket() const { return m_socket; }
  time_t GetLastActiveTime() const { return m_lastActive; }
  std::string GetRemoteAddress() const { return m_remoteAddress; }
  void SetEventLog(QmLogInterface* logger) { m_logger = logger; }

 protected:
  // Closes a descriptor left over from an earlier use and adopts `fd`.
  void AdoptDescriptor(int fd);

  int m_socket = -1;
  QmioSocketEventHandler* m_handler = nullptr;
  std::string m_remoteAddress;
  time_t m_lastActive;
  QmLogInterface* m_logger = nullptr;
};

#endif
