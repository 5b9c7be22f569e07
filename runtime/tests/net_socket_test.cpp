// Sockets and the socket pool, on loopback.
#include <fcntl.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <memory>

#include "QmioAcceptedSocket.h"
#include "QmioClientSocket.h"
#include "QmioServerSocket.h"
#include "QmioSocketEventHandler.h"
#include "QmioSocketPool.h"
#include "net_test_support.h"

namespace {

// A connected loopback pair: `client` made by Connect, `accepted` by Accept.
class SocketPairTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server.Listen("127.0.0.1", 0, true);
    port = server.GetPort();
    ASSERT_EQ(0, client.Connect("127.0.0.1", port, QmioSocket::SOCKET_TCP));
    accepted.reset(server.Accept(2000));
    ASSERT_NE(nullptr, accepted);
  }
  std::string ReadSome(bool quiet = true) {
    unsigned char buffer[64];
    const int got = accepted->Read(buffer, sizeof(buffer), 2000, status, quiet);
    return got > 0 ? std::string(reinterpret_cast<char*>(buffer), got) : "";
  }

  QmioServerSocket server;
  int port = 0;
  QmioClientSocket client;
  std::unique_ptr<QmioAcceptedSocket> accepted;
  QmioSocket::SocketStatus status = QmioSocket::SOCKET_DONE;
};

TEST_F(SocketPairTest, TrafficIsTracedUnlessQuiet) {
  RecordingLogger log;
  client.SetEventLog(&log);
  accepted->SetEventLog(&log);
  EXPECT_EQ(5, client.Write("hello"));
  EXPECT_EQ("hello", ReadSome(false));
  EXPECT_TRUE(log.Count(QmLogInterface::LEVEL_TRACE, "<= hello") == 1 &&
              log.Count(QmLogInterface::LEVEL_TRACE, "=> hello") == 1);
  EXPECT_EQ(5, client.Write("quiet"));
  EXPECT_EQ("quiet", ReadSome());
  EXPECT_EQ(0u, log.Count(QmLogInterface::LEVEL_NONE, "=> quiet"));
}

TEST_F(SocketPairTest, PeerCloseAndDeadPeerAreErrorsNamingTheRemoteEnd) {
  client.Close();
  unsigned char buffer[8];
  for (int timeout : {2000, -1}) {
    EXPECT_EQ("Socket is closed @ 127.0.0.1", Thrown<QmioException>([&] {
                accepted->Read(buffer, sizeof(buffer), timeout, status, false);
              }));
    EXPECT_EQ(QmioSocket::SOCKET_FAILED, status);
  }
  QmioClientSocket writer;
  writer.Connect("127.0.0.1", port, QmioSocket::SOCKET_TCP);
  delete server.Accept(2000);  // the peer goes away; writing must not raise SIGPIPE
  const std::string block(64 * 1024, 'x');
  EXPECT_EQ("Socket Write Error @ 127.0.0.1:" + std::to_string(port), Thrown<QmioException>([&] {
              for (int i = 0; i < 1000; ++i) writer.Write(block);
            }));
}

TEST_F(SocketPairTest, TimeOutsAreResultsAndLinesAreReadWhole) {
  errno = EINTR;  // left by an earlier call: it does not make a timed-out wait go on
  EXPECT_EQ(QmioSocket::SOCKET_TIMEOUT, accepted->Wait(true, false, 200));
  EXPECT_EQ(QmioSocket::SOCKET_WRITE_READY, accepted->Wait(false, true, 0));
  EXPECT_EQ(nullptr, server.Accept(0));
  // A negative time-out other than -1 is 0, never a wait without end.
  EXPECT_EQ(QmioSocket::SOCKET_TIMEOUT, accepted->Wait(true, false, -2));

  // The line readers, which nothing in the system calls: a terminator whose
  // match starts again, the rest left for the next read, a time-out's partial line.
  client.Write("ab\r\r\ncd\nef");
  unsigned char crlf[] = "\r\n";
  EXPECT_EQ("ab\r\r\n", accepted->ReadTill(crlf, 2000, status));
  EXPECT_EQ("cd\n", accepted->ReadLine(2000, status));
  EXPECT_EQ("ef", accepted->ReadLine(100, status));  // the timed-out byte is not added
  EXPECT_EQ(QmioSocket::SOCKET_TIMEOUT, status);
}

// A signal that interrupts a wait does not end it.
TEST_F(SocketPairTest, SignalDoesNotEndAWait) {
  struct sigaction quiet {};
  struct sigaction previous {};
  quiet.sa_handler = [](int) {};
  sigemptyset(&quiet.sa_mask);  // no SA_RESTART: the calls see EINTR
  ASSERT_EQ(0, sigaction(SIGURG, &quiet, &previous));
  std::string result;
  std::thread waiter([&] { result = ReadSome(); });  // waits, then reads
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let it block
    pthread_kill(waiter.native_handle(), SIGURG);
  }
  client.Write("late");
  waiter.join();
  EXPECT_EQ("late", result);
  sigaction(SIGURG, &previous, nullptr);
}

TEST_F(SocketPairTest, ShutdownReleasesABlockedAccept) {
  std::unique_ptr<QmioAcceptedSocket> result(new QmioAcceptedSocket(-1, "marker"));
  std::thread waiter([&] { result.reset(server.Accept(-1)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let it block
  EXPECT_TRUE(server.Shutdown());
  waiter.join();
  EXPECT_EQ(nullptr, result);
  // Also a listening socket that got descriptor 0, as in a host without stdin.
  const int stdinCopy = dup(0);
  close(0);
  QmioServerSocket first;
  first.Listen("127.0.0.1", 0, true);
  EXPECT_TRUE(first.Shutdown());
  EXPECT_EQ(fcntl(0, F_GETFD), -1);  // closed
  dup2(stdinCopy, 0);
  close(stdinCopy);
}

TEST(SocketTest, ConnectAndListenFailures) {
  QmioServerSocket any;
  any.Listen("", 0, true);
  const int port = any.GetPort();
  QmioServerSocket second;
  EXPECT_EQ("Socket Bind Failed @ 127.0.0.1",
            Thrown<QmioException>([&] { second.Listen("127.0.0.1", port, true); }));
  QmioClientSocket client;  // the any-address listener is reachable through loopback
  EXPECT_EQ(0, client.Connect("localhost", port, QmioSocket::SOCKET_TCP));
  std::unique_ptr<QmioAcceptedSocket> accepted(any.Accept(2000));
  EXPECT_TRUE(accepted != nullptr && accepted->GetRemoteAddress() == "127.0.0.1");
  any.Shutdown();

  QmioClientSocket refused, unknown;
  EXPECT_EQ(
      "Socket Connecting Failed @ 127.0.0.1:" + std::to_string(port),
      Thrown<QmioException>([&] { refused.Connect("127.0.0.1", port, QmioSocket::SOCKET_TCP); }));
  EXPECT_EQ("Socket Unknown Remote Host @ no-such-host.invalid:1234", Thrown<QmioException>([&] {
              unknown.Connect("no-such-host.invalid", 1234, QmioSocket::SOCKET_TCP);
            }));
}

struct HandlerLog {
  std::atomic<int> events{0}, destroyed{0};
};

// Reads whatever is there once and echoes its size back.
struct OneShotHandler : QmioSocketEventHandler {
  explicit OneShotHandler(HandlerLog* log) : log(log) {}
  ~OneShotHandler() override { ++log->destroyed; }
  void OnSocketEvent(QmioSocket* socket, SocketEvent event, void*) override {
    if (event != EVENT_DATA_READY) return;
    ++log->events;
    unsigned char buffer[256];
    QmioSocket::SocketStatus status;
    const int got = socket->Read(buffer, sizeof(buffer), 1000, status, true);
    if (got > 0) socket->Write(std::to_string(got));
  }
  HandlerLog* log;
};

TEST_F(SocketPairTest, PoolLimitServingOnceStopAndDestruction) {
  HandlerLog log;
  std::vector<std::unique_ptr<RawClient>> clients;
  auto Connect = [&]() -> QmioSocket* {  // a raw client's accepted end, with a handler
    clients.emplace_back(new RawClient(port));
    QmioSocket* socket = server.Accept(2000);
    if (socket != nullptr) socket->SetEventHandler(new OneShotHandler(&log));
    return socket;
  };
  QmioSocketPool pool;
  pool.Initialize(2, 2);
  EXPECT_EQ(0, pool.AddSocket(Connect()));  // stays silent
  EXPECT_EQ(0, pool.AddSocket(Connect()));
  EXPECT_TRUE(pool.HaveAvailableSpot());  // at the limit still counts as a spot
  std::unique_ptr<QmioSocket> third(Connect());
  EXPECT_EQ("Too Many Sockets @ SocketPool",
            Thrown<QmioException>([&] { pool.AddSocket(third.get()); }));
  EXPECT_EQ(third.get(), pool.RemoveSocket(third.get()));
  EXPECT_EQ(2u, pool.WaitingCount());

  ASSERT_TRUE(clients[1]->Send("12345"));  // served once, then deleted after its handler
  EXPECT_EQ("5", clients[1]->Receive(16, 3000));
  EXPECT_TRUE(clients[1]->SeesClose(2000));
  ASSERT_TRUE(WaitUntil([&] { return log.destroyed == 1; }, 3000));
  EXPECT_EQ(1u, pool.WaitingCount());
  EXPECT_TRUE(pool.Stop(500) && pool.WaitingCount() == 0u);
  EXPECT_EQ(2, log.destroyed.load());  // the waiting socket deleted with its handler
  EXPECT_EQ(1, log.events.load());
  EXPECT_TRUE(clients[0]->SeesClose(2000));
  const long threads = FolderEntries("/proc/self/task");
  {  // destroying a running pool stops it and its threads as well
    QmioSocketPool running;
    running.Initialize(4, 1);
    ASSERT_EQ(0, running.AddSocket(Connect()));
  }
  EXPECT_EQ(3, log.destroyed.load());
  EXPECT_LE(FolderEntries("/proc/self/task"), threads);
  OneShotHandler other(&log);  // a socket keeps its first handler
  EXPECT_FALSE(third->SetEventHandler(&other));
  EXPECT_NE(&other, third->GetEventHandler());
}

}  // namespace
