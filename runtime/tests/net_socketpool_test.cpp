#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <vector>

#include "QmioAcceptedSocket.h"
#include "QmioException.h"
#include "QmioServerSocket.h"
#include "QmioSocketEventHandler.h"
#include "QmioSocketPool.h"
#include "net_test_support.h"

namespace {

size_t ThreadsOfThisProcess() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
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

class SocketPoolTest : public ::testing::Test {
 protected:
  void SetUp() override { server.Listen("127.0.0.1", 0, true); }

  // Connects a raw client and returns the accepted end with a handler.
  QmioSocket* Connect() {
    clients.emplace_back(new RawClient(server.GetPort()));
    QmioSocket* socket = server.Accept(2000);
    if (socket != nullptr) socket->SetEventHandler(new OneShotHandler(&log));
    return socket;
  }

  QmioServerSocket server;
  HandlerLog log;
  std::vector<std::unique_ptr<RawClient>> clients;
};

TEST_F(SocketPoolTest, LimitServingOnceStopAndDestruction) {
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
  const size_t threads = ThreadsOfThisProcess();
  {  // destroying a running pool stops it and its threads as well
    QmioSocketPool running;
    running.Initialize(4, 1);
    ASSERT_EQ(0, running.AddSocket(Connect()));
  }
  EXPECT_EQ(3, log.destroyed.load());
  EXPECT_LE(ThreadsOfThisProcess(), threads);
  OneShotHandler other(&log);  // a socket keeps its first handler
  EXPECT_FALSE(third->SetEventHandler(&other));
  EXPECT_NE(&other, third->GetEventHandler());
}

}  // namespace
