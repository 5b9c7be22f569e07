#ifndef QM_TOOLS_OAPSIM_OAPSIMSERVER_H
#define QM_TOOLS_OAPSIM_OAPSIMSERVER_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <list>
#include <map>
#include <string>

#include "OapSimHandsets.h"
#include "OapSimOptions.h"

// The simulated OAP server and its handsets. Accepts one OAP-request per
// connection on a loopback port (any address with --allow-remote), checks and answers it, keeps
// what the handsets were shown, and plays the handsets: delivery reports and answers go to the
// driver's listener over connections of their own, scripted
// (--auto) or on command from standard input. Everything runs on the caller's
// thread in one poll loop. The server owns its sockets and the store.
class OapSimServer {
 public:
  using Clock = std::chrono::steady_clock;

  OapSimServer(const OapSimOptions& options, std::FILE* out);
  ~OapSimServer();
  OapSimServer(const OapSimServer&) = delete;
  OapSimServer& operator=(const OapSimServer&) = delete;

  // Binds and listens; prints "listening on HOST:PORT" as the first line.
  bool Start(std::string& error);
  int Port() const { return m_port; }

  // Serves until "quit", `stopFd` turning readable (a stop signal), or the
  // --exit-after-ms time. `inputFd` carries commands; -1 for none.
  void Run(int inputFd, int stopFd);

  // One command line; false when it asks the server to stop.
  bool Command(const std::string& line);

 private:
  // Owns one file descriptor.
  class Socket {
   public:
    explicit Socket(int fd = -1) : m_fd(fd) {}
    ~Socket();
    Socket(Socket&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    Socket& operator=(Socket&& other) noexcept;
    int Get() const { return m_fd; }

   private:
    int m_fd;
  };

  struct Connection {
    Socket socket;
    std::string buffer;
    Clock::time_point deadline;
    bool held = false;  // --silent: request read, kept open unanswered
  };

  struct Scheduled {
    uint32_t tracking;
    OapSimOptions::Action action;
  };

  static constexpr size_t kMaxDocument = 256 * 1024;
  static constexpr size_t kMaxConnections = 64;
  static constexpr int kConnectTimeoutMs = 2000;

  void Print(const std::string& line);
  void AcceptAll();
  // Reads what arrived; true when the connection is finished with.
  bool ReadFrom(Connection& connection);
  void Serve(Connection& connection);
  void Answer(Connection& connection, const std::string& document);
  bool ReadInput(int fd);
  void RunDue(Clock::time_point now);
  int MillisUntilNextEvent(Clock::time_point now, Clock::time_point exitAt) const;
  void ScheduleAuto(const OapSimHandsets::Message& message);
  void Perform(uint32_t tracking, const OapSimOptions::Action& action);
  void Deliver(const OapSimHandsets::Message& message);
  void ChooseOption(const OapSimHandsets::Message& message, int number);
  void TypeAnswer(const OapSimHandsets::Message& message, const std::string& words);
  void List();
  bool SendToDriver(const OapSimHandsets::Message& message, const std::string& document,
                    const std::string& what);

  OapSimOptions m_options;
  std::FILE* m_out;
  Socket m_listener;
  int m_port = 0;
  std::list<Connection> m_connections;
  std::multimap<Clock::time_point, Scheduled> m_scheduled;
  OapSimHandsets m_handsets;
  std::string m_input;
  bool m_stopping = false;
};

#endif
