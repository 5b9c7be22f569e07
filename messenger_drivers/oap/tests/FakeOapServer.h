#ifndef QM_OAP_TESTS_FAKEOAPSERVER_H
#define QM_OAP_TESTS_FAKEOAPSERVER_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A small OAP server for tests on 127.0.0.1 (ephemeral port), written on raw
// sockets and independent of the model classes. Each connection is served
// on a thread of its own: the server reads one request (up to its closing
// tag), records its bytes and acts on the next scripted reply.
class FakeOapServer {
 public:
  struct Reply {
    enum Kind { kAnswer, kSplit, kSilent, kClose };
    Kind kind = kClose;
    std::string first;   // the answer, or the first piece of a split answer
    std::string second;  // the second piece of a split answer
  };
  static Reply Answer(const std::string& text) { return {Reply::kAnswer, text, ""}; }
  // Two pieces with a pause between them.
  static Reply Split(const std::string& a, const std::string& b) { return {Reply::kSplit, a, b}; }
  // Reads the request and then says nothing until the peer goes.
  static Reply Silent() { return {Reply::kSilent, "", ""}; }
  static Reply Close() { return {Reply::kClose, "", ""}; }

  using Responder = std::function<Reply(const std::string& request)>;

  FakeOapServer();
  ~FakeOapServer();
  FakeOapServer(const FakeOapServer&) = delete;
  FakeOapServer& operator=(const FakeOapServer&) = delete;

  int Port() const { return m_port; }
  // Scripted replies, used in order before the responder is asked.
  void Queue(const Reply& reply);
  // Asked once the queue is empty; without one the connection is closed.
  void SetResponder(Responder responder);
  std::vector<std::string> Requests();
  // True once at least `count` requests arrived within `timeoutMs`.
  bool WaitForRequests(size_t count, int timeoutMs);

 private:
  void AcceptLoop();
  void Serve(int fd);
  Reply NextReply(const std::string& request);

  int m_listenFd = -1;
  int m_port = 0;
  std::atomic<bool> m_stop{false};
  std::thread m_acceptThread;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Reply> m_script;
  Responder m_responder;
  std::vector<std::string> m_requests;
  std::vector<std::thread> m_workers;
};

#endif
