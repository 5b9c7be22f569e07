#include <fcntl.h>

#include "soak_support.h"

namespace {

using Level = QmLogInterface::LogLevel;
using Mode = LoopbackOapServer::Mode;

// A raw connection to the listener, for what a well-mannered server never
// does: stay idle, or write a document in pieces. True when the driver
// closed its end first (5 s), after the connection was half-closed or not.
bool ClosedByDriver(int fd, bool halfClose) {
  if (halfClose) shutdown(fd, SHUT_WR);
  pollfd entry{fd, POLLIN, 0};
  char sink[256];
  bool closed = false;
  while (!closed && poll(&entry, 1, 5000) > 0) closed = recv(fd, sink, sizeof sink, 0) <= 0;
  close(fd);
  return closed;
}

std::string YesFor(const QmReferenceJob& job) {
  return AnswerDoc(Hex(job.GetTrackingReceipt()), job.OapVersion, false, "N:Yes");
}

class SoakFaultTest : public SoakDriverTest {
 protected:
  // An interactive message offering "Yes"; true when the server took it.
  bool Send(QmReferenceJob& job, Status& status, const std::string& version = "3.0") {
    Address(job, "4711", version, true);
    status = Reports::NO_STATUS;
    return driver->SendAMessage(&job, status);
  }

  // A message the server took, kept by the fixture.
  QmReferenceJob& Sent() {
    QmReferenceJob& job = jobs.emplace_back();
    Status status;
    EXPECT_TRUE(Send(job, status));
    EXPECT_EQ(status, Reports::SENT);
    return job;
  }

  std::deque<QmReferenceJob> jobs;
};

// What the OAP server does wrong, and the job error the host must see.
struct ServerFault {
  const char* name;
  Mode mode;
  bool listening;
  const char* error;
  friend void PrintTo(const ServerFault& fault, std::ostream* out) { *out << fault.name; }
};

class ServerFaultTest : public SoakFaultTest, public ::testing::WithParamInterface<ServerFault> {};

TEST_P(ServerFaultTest, SendFailsWithItsErrorAndTheDriverRecovers) {
  const ServerFault& fault = GetParam();
  const int port = server.Port();
  QmReferenceJob& before = Sent();
  if (!fault.listening) server.Stop();
  server.SetMode(fault.mode);
  for (const char* version : {"3.0", "4.0"}) {
    QmReferenceJob job;
    Status status;
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(Send(job, status, version));
    const Clock::duration took = Clock::now() - start;
    EXPECT_EQ(status, Reports::SENDING) << version;
    EXPECT_EQ(job.GetErrorText(), fault.error) << version;
    EXPECT_EQ(job.GetTrackingReceipt(), "") << version;
    EXPECT_LT(took, std::chrono::seconds(10));
    // A silent server, or one that never finishes its answer, is given up on
    // after the 2 s read time-out.
    const bool waited = fault.mode == Mode::kSilent || fault.mode == Mode::kSplit;
    EXPECT_GE(took, std::chrono::milliseconds(waited ? 1900 : 0));
  }
  server.SetMode(Mode::kAccept);
  ASSERT_TRUE(server.Start(port));
  // A message sent before the fault still takes its answer after it.
  ExpectOneYes(before);
  ExpectOneYes(Sent());
}

INSTANTIATE_TEST_SUITE_P(
    Outbound, ServerFaultTest,
    ::testing::Values(ServerFault{"Refused", Mode::kAccept, false, "Socket Connecting Failed"},
                      ServerFault{"Silent", Mode::kSilent, true, "Dispatch Failure"},
                      ServerFault{"Unfinished", Mode::kSplit, true, "Dispatch Failure"},
                      ServerFault{"Garbage", Mode::kGarbage, true, "Dispatch Failure"},
                      ServerFault{"BeyondLimit", Mode::kOversized, true, "Dispatch Failure"}),
    [](const ::testing::TestParamInfo<ServerFault>& info) { return info.param.name; });

// Something hostile on the driver's listener, made from the tracking number of
// a message waiting for its answer: one document, or a storm of eight senders
// with 25 connections each. The real answer must still arrive afterwards,
// exactly once.
struct ListenerFault {
  const char* name;
  std::string (*document)(const std::string& hexId);
  int senders;
  size_t unknownNumberWarnings;
  friend void PrintTo(const ListenerFault& fault, std::ostream* out) { *out << fault.name; }
};

class ListenerFaultTest : public SoakFaultTest,
                          public ::testing::WithParamInterface<ListenerFault> {};

TEST_P(ListenerFaultTest, DriverKeepsTakingAnswers) {
  const ListenerFault& fault = GetParam();
  QmReferenceJob& job = Sent();
  const std::string document = fault.document(Hex(job.GetTrackingReceipt()));
  std::vector<std::thread> senders;
  for (int t = 0; t < fault.senders; ++t) {
    senders.emplace_back([&] {
      for (int i = 0; i < (fault.senders > 1 ? 25 : 1); ++i) {
        EXPECT_TRUE(SendInbound(listenerPort, document));
      }
    });
  }
  for (std::thread& sender : senders) sender.join();
  ExpectOneYes(job);
  const char unknown[] = "Couldn't find device controller by Trackign ID";
  EXPECT_TRUE(logger.WaitFor(Level::LEVEL_WARN, unknown, fault.unknownNumberWarnings, 10000));
  EXPECT_EQ(logger.Count(Level::LEVEL_WARN, unknown), fault.unknownNumberWarnings);
  EXPECT_EQ(logger.Count(Level::LEVEL_ERROR, "Too Many Sockets"), 0u);
}

// An oversized document is longer than the 64 KiB a document may have (the
// connection is closed); the storm's option data is too short to carry its
// prefix.
INSTANTIATE_TEST_SUITE_P(
    Inbound, ListenerFaultTest,
    ::testing::Values(
        ListenerFault{"Garbage", [](auto&) { return std::string("\x01\x02<OAP-re&&<<", 13); }, 1,
                      0},
        ListenerFault{"EmptyConnection", [](auto&) { return std::string(); }, 1, 0},
        ListenerFault{"UnknownTrackingNumber",
                      [](auto&) { return AnswerDoc("7", "3.0", false, "N:Yes"); }, 1, 1},
        ListenerFault{"Oversized",
                      [](auto& id) {
                        return AnswerDoc(id, "3.0", false, "N:" + std::string(70 * 1024, 'x'));
                      },
                      1, 0},
        ListenerFault{"ConnectionStorm", [](auto& id) { return AnswerDoc(id, "3.0", false, "Q"); },
                      8, 0}),
    [](const ::testing::TestParamInfo<ListenerFault>& info) { return info.param.name; });

// Idle connections cannot switch the listener off: a thousand are held open
// while a thousand answers arrive on other connections (connect, write,
// close). The oldest idle ones are closed to make room; every answer is
// handed back once.
TEST_F(SoakFaultTest, IdleConnectionsNeverShutTheListener) {
  const int count = 1000 / kSoakScale;
  ASSERT_TRUE(RaiseDescriptorLimit(2 * count + 1024));
  for (int i = 0; i < count; ++i) Sent();
  std::vector<int> idle;
  std::thread holder([&] {
    for (int i = 0; i < count; ++i) idle.push_back(ConnectLoopback(listenerPort));
  });
  std::vector<std::thread> handsets;
  std::atomic<int> resent{0};
  for (int t = 0; t < 4; ++t) {
    handsets.emplace_back([&, t] {
      for (int i = t; i < count; i += 4) {
        EXPECT_TRUE(PushTaken(listenerPort, YesFor(jobs[i]), resent));
      }
    });
  }
  holder.join();
  for (std::thread& handset : handsets) handset.join();
  std::cout << "[ soak ] " << count << " answers beside " << count << " idle connections, "
            << resent << " sent again after their connection was closed unread" << std::endl;
  for (QmReferenceJob& job : jobs) ExpectOneYes(job, false);
  EXPECT_GT(logger.Count(Level::LEVEL_WARN,
                         "Connection with client [IP address '127.0.0.1'] closed to make room"),
            0u);
  EXPECT_EQ(logger.Count(Level::LEVEL_ERROR, ""), 0u);
  for (int fd : idle) EXPECT_EQ(close(fd), 0);
}

// A host that has many descriptors open before Setup (past the 1024 that
// select could watch) sends and takes answers as any other.
TEST_F(SoakFaultTest, HostWithTwoThousandDescriptorsSendsAndReceives) {
  ASSERT_TRUE(RaiseDescriptorLimit(4096));
  driver->Cleanup();
  std::vector<int> held;
  for (int i = 0; i < 2000; ++i) held.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  ASSERT_GE(held.back(), 2000);
  SetupOnFreePort();
  ExpectOneYes(Sent());
  for (int fd : held) close(fd);
}

// Cleanup and Setup on the same port, fifty times, each right after the
// driver closed an inbound connection itself (which leaves that connection
// waiting out its time on the port).
TEST_F(SoakFaultTest, SetupAgainOnTheSamePortRightAfterTheDriverClosed) {
  for (int round = 0; round < 50; ++round) {
    const int fd = ConnectLoopback(listenerPort);
    EXPECT_TRUE(WriteAll(fd, "no document") && ClosedByDriver(fd, false)) << round;
    EXPECT_TRUE(driver->Cleanup());
    ASSERT_TRUE(SetupWithPort(std::to_string(listenerPort))) << round;
  }
  ExpectOneYes(Sent());
}

// Cleanup while answers to eight messages arrive from three threads (the
// workers taking them wait on their echoes to a server gone silent), idle
// connections are open and one is in the middle of a document: Cleanup
// returns within the pool's stop time, ends the half-written connection and
// leaves nothing behind.
TEST_F(SoakFaultTest, CleanupUnderLoadReturnsPromptly) {
  for (int i = 0; i < 8; ++i) Sent();
  server.SetMode(Mode::kSilent);
  std::atomic<bool> stop{false};
  std::vector<std::thread> pushers;
  for (int t = 0; t < 3; ++t) {
    pushers.emplace_back([&, t] {
      for (int i = t; i < 2000 && !stop; i += 3) SendInbound(listenerPort, YesFor(jobs[i % 8]));
    });
  }
  std::vector<int> idle;
  for (int i = 0; i < 4; ++i) idle.push_back(ConnectLoopback(listenerPort));
  const int halfWritten = ConnectLoopback(listenerPort);
  EXPECT_TRUE(WriteAll(halfWritten, YesFor(jobs[0]).substr(0, 40)));
  EXPECT_TRUE(WaitUntil([&] { return server.Repeats() >= 1; }, 10));
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(driver->Cleanup());
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  stop = true;
  for (std::thread& pusher : pushers) pusher.join();
  EXPECT_TRUE(ClosedByDriver(halfWritten, true));
  for (int fd : idle) close(fd);
}

}  // namespace
