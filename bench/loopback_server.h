#ifndef QM_BENCH_LOOPBACK_SERVER_H
#define QM_BENCH_LOOPBACK_SERVER_H

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

// The answer an OAP server gives to a request it accepts: class 1, code 200,
// under the request's id. The benchmarks parse the same text.
std::string AcceptedResponse(const std::string& hexId);

// A small OAP server on 127.0.0.1 with a thread of its own, serving one
// connection at a time. In Respond mode it reads a request up to its closing
// tag, answers with AcceptedResponse for the request's id and closes once the
// client has closed; in Sink mode it reads until the peer half-closes and
// closes. It counts the documents it took and keeps the last one. A sink
// given an echo port and request also makes one RawExchange of that request
// with that port for every document before it closes the connection.
class LoopbackServer {
 public:
  enum Mode { Respond, Sink };

  explicit LoopbackServer(Mode mode, int echoPort = 0, std::string echoRequest = "");
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int Port() const { return m_port; }
  unsigned long Served() const { return m_served.load(); }
  std::string LastDocument() const;

 private:
  void Serve();
  void ServeOne(int fd);

  Mode m_mode;
  int m_echoPort;
  std::string m_echoRequest;
  int m_listenFd = -1;
  int m_port = 0;
  std::atomic<bool> m_stop{false};
  std::atomic<unsigned long> m_served{0};
  mutable std::mutex m_mutex;
  std::string m_last;
  std::thread m_thread;
};

// The outbound exchange reduced to system calls: connect to 127.0.0.1:port,
// write the request, read once (at most 2000 bytes, 2 s), close. Returns the
// number of bytes read.
long RawExchange(int port, const std::string& request);

// The inbound side as an OAP server plays it: connect, write the document,
// half-close and wait (at most 5 s) until the peer closes. False when the
// connection or the write failed.
bool PushDocument(int port, const std::string& document);

// An OAP server's short connection: connect, write the document, close,
// without waiting for the peer. False when the connection or the write
// failed.
bool PushShort(int port, const std::string& document);

// Resident memory of this process in bytes.
long ResidentBytes();

#endif
