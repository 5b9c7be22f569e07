#include <atomic>

#include "QmioSocketAdvHandler.h"
#include "QmioSocketListener.h"
#include "net_test_support.h"

namespace {

// How many handlers one listener made and how many of them are gone.
struct Traffic {
  std::atomic<int> handlers{0}, destroyed{0};
};

// Answers each piece with all data its connection sent so far; "bye" ends
// the connection.
class AckHandler : public QmioSocketAdvHandler {
 public:
  AckHandler(Traffic* traffic, QmLogInterface* logger)
      : QmioSocketAdvHandler("", 100), m_t(traffic) {
    SetLogger(logger);
    ++m_t->handlers;
  }
  ~AckHandler() override { ++m_t->destroyed; }  // last touch of the shared record
  bool OnData(const std::string& data) override {
    m_seen += data;
    if (data == "bye") return false;
    SendData(m_seen);
    return true;
  }

 private:
  Traffic* m_t;
  std::string m_seen;
};

struct TestListener : QmioSocketListener {
  TestListener(int limit, int threads, Traffic* traffic)
      : QmioSocketListener(limit, threads), traffic(traffic) {}
  std::string GetRunningModuleName() override { return "Test Listener"; }
  bool OnConnection(QmioSocket*) override { return accept; }
  QmioSocketEventHandler* GetHandler() override { return new AckHandler(traffic, m_logger); }
  Traffic* traffic;
  std::atomic<bool> accept{true};
};

class ListenerTest : public ::testing::Test {
 protected:
  void Start(int limit, int threads) {
    listener.reset(new TestListener(limit, threads, &traffic));
    EXPECT_EQ(listener->GetListeningPort(), -1);  // no socket yet
    ASSERT_TRUE(listener->Initialize(&log, ""));
    ASSERT_TRUE(listener->Listen(0, "127.0.0.1"));
    port = listener->GetListeningPort();
  }
  // The owner's stop sequence.
  void StopListener() {
    listener->StopThread();
    EXPECT_TRUE(listener->WaitForThreadStop(-1));
  }
  bool Logged(QmLogInterface::LogLevel level, const std::string& text) {
    return WaitUntil([&] { return log.Count(level, text) == 1; }, 5000);
  }
  bool Reaches(std::atomic<int>& counter, int value) {
    return WaitUntil([&] { return counter == value; }, 5000);
  }

  RecordingLogger log;
  Traffic traffic;
  std::unique_ptr<TestListener> listener;
  int port = 0;
};

TEST_F(ListenerTest, ConnectionEndsPromptStopAndRebind) {
  Start(8, 2);
  listener->accept = false;
  RawClient refused(port);
  EXPECT_TRUE(refused.SeesClose(5000));
  EXPECT_TRUE(Logged(QmLogInterface::LEVEL_ERROR,
                     "Connection with client [IP address '127.0.0.1'] closed."));
  EXPECT_EQ(0, traffic.handlers.load());

  listener->accept = true;
  RawClient leaving(port);
  EXPECT_TRUE(Logged(QmLogInterface::LEVEL_INFO,
                     "Connection with client [IP address '127.0.0.1'] accepted."));
  leaving.Send("bye");
  EXPECT_TRUE(leaving.SeesClose(5000));
  EXPECT_TRUE(Logged(QmLogInterface::LEVEL_INFO,
                     "Adv Socket Handler <127.0.0.1>: Data handler signals close of socket"));
  RawClient hangingUp(port);  // a close by the peer is normal: debug level
  hangingUp.Send("x");
  EXPECT_EQ("x", hangingUp.Receive(16, 5000));
  hangingUp.Close();
  EXPECT_TRUE(Logged(QmLogInterface::LEVEL_DEBUG,
                     "Adv Socket Handler <127.0.0.1>: Exception occurred [Exception raised!"));
  EXPECT_TRUE(log.Count(QmLogInterface::LEVEL_DEBUG, "Msg[Socket is closed]") == 1 &&
              log.Count(QmLogInterface::LEVEL_ERROR, "Adv Socket Handler") == 0);

  // The stop is prompt while connections are open, and closes them.
  RawClient reading(port);  // its worker sits in the read loop
  reading.Send("hello");
  EXPECT_EQ("hello", reading.Receive(16, 5000));
  RawClient silent(port);  // stays with the select thread
  ASSERT_TRUE(Reaches(traffic.handlers, 4));
  StopListener();
  EXPECT_TRUE(reading.SeesClose(3000) && silent.SeesClose(3000));
  EXPECT_TRUE(Reaches(traffic.destroyed, 4) && !RawClient(port).Connected());
  EXPECT_EQ(1u, log.Count(QmLogInterface::LEVEL_DEBUG, "SocketListener: Do not continue any more"));

  // The listener closed "bye" itself, so the port has a connection waiting
  // out its time; a new listener binds it at once all the same.
  TestListener again(4, 1, &traffic);
  ASSERT_TRUE(again.Initialize(&log, ""));
  EXPECT_TRUE(again.Listen(port, "127.0.0.1"));
  again.StopThread();
  EXPECT_TRUE(again.WaitForThreadStop(-1));
}

// One waiting place and one worker: idle connections make room for new ones
// and expire; a served connection that falls silent waits in the pool for
// its next data instead of holding the worker; the accept loop never ends.
TEST_F(ListenerTest, FullPoolMakesRoomAndIdleConnectionsExpire) {
  Start(1, 1);
  RawClient oldest(port);
  ASSERT_TRUE(Reaches(traffic.handlers, 1));
  // A new connection is not closed before it had 250 ms to send something.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  RawClient newer(port);  // takes the place of the oldest
  EXPECT_TRUE(oldest.SeesClose(5000));
  EXPECT_TRUE(Logged(QmLogInterface::LEVEL_WARN,
                     "Connection with client [IP address '127.0.0.1'] closed to make room"));

  RawClient talker(port);  // sends at once: no waiting place needed
  ASSERT_TRUE(talker.Send("a"));
  EXPECT_EQ("a", talker.Receive(16, 5000));
  // Served once the talker's read times out and frees the only worker.
  ASSERT_TRUE(newer.Send("b"));
  EXPECT_EQ("b", newer.Receive(16, 5000));
  ASSERT_TRUE(talker.Send("c"));
  EXPECT_EQ("ac", talker.Receive(16, 5000));  // one handler for both pieces

  listener->SetIdleTimeout(200);
  EXPECT_TRUE(talker.SeesClose(5000) && newer.SeesClose(5000));
  EXPECT_TRUE(Reaches(traffic.destroyed, 3));
  EXPECT_EQ(2u, log.Count(QmLogInterface::LEVEL_INFO, "ms without data."));
  EXPECT_FALSE(listener->WaitForThreadStop(0));
  EXPECT_EQ(0u, log.Count(QmLogInterface::LEVEL_ERROR, ""));
  StopListener();
}

}  // namespace
