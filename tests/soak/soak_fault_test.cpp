#include <chrono>
#include <functional>
#include <set>

#include "soak_support.h"

namespace {

using Change = QmReferenceJob::StatusChange;
using Clock = std::chrono::steady_clock;
using Level = QmLogInterface::LogLevel;
using Mode = LoopbackOapServer::Mode;
using Reports = QmMessengerReportsMngrInterface;

// For states the driver tells nothing about: polls (bounded).
bool Eventually(const std::function<bool()>& condition) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (!condition() && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}

// A raw connection to the listener, for what a well-mannered server never
// does: stay idle, or write a document in pieces.
int Connect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = FakeOapServer::Loopback(port);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  return fd;
}

void Write(int fd, const std::string& text) {
  send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

// Half-closes and closes; true when the driver closed its end first (5 s).
bool FinishAndWaitForClose(int fd) {
  shutdown(fd, SHUT_WR);
  pollfd entry{fd, POLLIN, 0};
  char sink[256];
  bool closed = false;
  while (!closed && poll(&entry, 1, 5000) > 0) closed = recv(fd, sink, sizeof sink, 0) <= 0;
  close(fd);
  return closed;
}

class SoakFaultTest : public SoakDriverTest {
 protected:
  // An interactive message offering "Yes"; true when the server took it.
  bool Send(QmReferenceJob& job, Status& status, const std::string& version = "3.0") {
    Address(job, "4711", version, true);
    job.JobId = "fault-" + std::to_string(++sent);
    status = Reports::NO_STATUS;
    return driver->SendAMessage(&job, status);
  }

  // The handset answers "Yes" on a connection of its own (which returns once
  // the driver has taken it); the hand-backs of the host's next query.
  std::vector<Change> Answer(QmReferenceJob& job) {
    SendInbound(listenerPort,
                AnswerDoc(Hex(job.GetTrackingReceipt()), job.OapVersion, false, "N:Yes"));
    Status status = Reports::SENT;
    driver->Send2WayRespQuery(&job, status);
    DrainQueue();
    return job.TakeStatusChanges();
  }

  void ExpectOneYes(QmReferenceJob& job) {
    std::vector<Change> changes = Answer(job);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].status, Reports::REPLIED);
    EXPECT_EQ(changes[0].text, "Yes");
  }

  int sent = 0;
};

// What the OAP server does wrong, and the job error the host must see.
struct ServerFault {
  const char* name;
  Mode mode;
  bool listening;
  const char* error;
};
void PrintTo(const ServerFault& fault, std::ostream* out) {
  *out << fault.name;
}

class ServerFaultTest : public SoakFaultTest, public ::testing::WithParamInterface<ServerFault> {};

TEST_P(ServerFaultTest, SendFailsWithItsErrorAndTheDriverRecovers) {
  const ServerFault& fault = GetParam();
  const int port = server.Port();
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
    // A silent server is given up on after the 2 s read time-out.
    EXPECT_GE(took, std::chrono::milliseconds(fault.mode == Mode::kSilent ? 1900 : 0));
  }

  server.SetMode(Mode::kAccept);
  ASSERT_TRUE(server.Start(port));
  QmReferenceJob job;
  Status status;
  ASSERT_TRUE(Send(job, status));
  EXPECT_EQ(status, Reports::SENT);
  ExpectOneYes(job);
}

INSTANTIATE_TEST_SUITE_P(
    Outbound, ServerFaultTest,
    ::testing::Values(ServerFault{"Refused", Mode::kAccept, false, "Socket Connecting Failed"},
                      ServerFault{"Silent", Mode::kSilent, true, "Dispatch Failure"},
                      ServerFault{"InPieces", Mode::kSplit, true, "Dispatch Failure"},
                      ServerFault{"Garbage", Mode::kGarbage, true, "Dispatch Failure"},
                      ServerFault{"Oversized", Mode::kOversized, true, "Dispatch Failure"}),
    [](const ::testing::TestParamInfo<ServerFault>& info) { return info.param.name; });

TEST_F(SoakFaultTest, ServerDiesMidRunAndComesBack) {
  const int port = server.Port();
  QmReferenceJob jobs[30];
  std::set<std::string> receipts;
  for (int i = 0; i < 30; ++i) {
    if (i == 10) server.Stop();
    EXPECT_TRUE(i != 20 || server.Start(port));
    const bool up = i < 10 || i >= 20;
    Status status;
    EXPECT_EQ(Send(jobs[i], status), up) << i;
    EXPECT_EQ(status, up ? Reports::SENT : Reports::SENDING) << i;
    EXPECT_EQ(jobs[i].GetErrorText(), up ? "" : "Socket Connecting Failed") << i;
    receipts.insert(jobs[i].GetTrackingReceipt());
  }
  EXPECT_EQ(receipts.size(), 21u);  // twenty numbers, and "" for the failures
  // A message sent before the outage still takes its answer after it.
  ExpectOneYes(jobs[0]);
  ExpectOneYes(jobs[29]);
}

// Something hostile on the driver's listener, made from the tracking number of
// a message waiting for its answer: one document, a document in two pieces,
// or a storm of eight senders with 25 connections each. The real answer must
// still arrive afterwards, exactly once.
struct ListenerFault {
  const char* name;
  std::string (*document)(const std::string& hexId);
  bool inPieces;
  int senders;
  size_t unknownNumberWarnings;
};
void PrintTo(const ListenerFault& fault, std::ostream* out) {
  *out << fault.name;
}

class ListenerFaultTest : public SoakFaultTest,
                          public ::testing::WithParamInterface<ListenerFault> {};

TEST_P(ListenerFaultTest, DriverKeepsTakingAnswers) {
  const ListenerFault& fault = GetParam();
  QmReferenceJob job;
  Status status;
  ASSERT_TRUE(Send(job, status));
  const std::string document = fault.document(Hex(job.GetTrackingReceipt()));
  if (fault.inPieces) {
    const std::string first = document.substr(0, document.size() / 2);
    const int fd = Connect(listenerPort);
    Write(fd, first);
    EXPECT_TRUE(logger.WaitFor(Level::LEVEL_DEBUG, "paylaod [" + first + "]", 1, 10000));
    Write(fd, document.substr(first.size()));
    EXPECT_TRUE(FinishAndWaitForClose(fd));
  }
  std::vector<std::thread> senders;
  for (int t = 0; t < fault.senders; ++t) {
    senders.emplace_back([&] {
      for (int i = 0; i < (fault.senders > 1 ? 25 : 1); ++i) {
        EXPECT_TRUE(SendInbound(listenerPort, document));
      }
    });
  }
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(logger.Count(Level::LEVEL_WARN, "Couldn't find device controller by Trackign ID"),
            fault.unknownNumberWarnings);
  ExpectOneYes(job);
  EXPECT_EQ(logger.Count(Level::LEVEL_ERROR, "Too Many Sockets"), 0u);
}

std::string Noise(const std::string&) {
  return std::string("\x01\x02<OAP-re&&<<", 13);
}
std::string Nothing(const std::string&) {
  return "";
}
std::string UnknownNumber(const std::string&) {
  return AnswerDoc("7", "3.0", false, "N:Yes");
}
// Longer than one 1024-byte read: each piece fails to parse and is dropped.
std::string Oversized(const std::string& id) {
  return AnswerDoc(id, "3.0", false, "N:" + std::string(900, 'x'));
}
std::string Split(const std::string& id) {
  return AnswerDoc(id, "3.0", false, "N:Split");
}
// Option data too short to carry its prefix.
std::string TooShort(const std::string& id) {
  return AnswerDoc(id, "3.0", false, "Q");
}

INSTANTIATE_TEST_SUITE_P(
    Inbound, ListenerFaultTest,
    ::testing::Values(ListenerFault{"Garbage", Noise, false, 1, 0},
                      ListenerFault{"EmptyConnection", Nothing, false, 1, 0},
                      ListenerFault{"UnknownTrackingNumber", UnknownNumber, false, 1, 1},
                      ListenerFault{"Oversized", Oversized, false, 1, 0},
                      ListenerFault{"InPieces", Split, true, 0, 0},
                      ListenerFault{"ConnectionStorm", TooShort, false, 8, 0}),
    [](const ::testing::TestParamInfo<ListenerFault>& info) { return info.param.name; });

// The listener's pool holds at most 10 connections waiting for data; the
// eleventh ends the accept loop, and no answer is taken until the driver is
// set up again.
TEST_F(SoakFaultTest, TenIdleConnectionsStopTheListener) {
  const char accepted[] = "Connection with client [IP address '127.0.0.1'] accepted.";
  QmReferenceJob job;
  Status status;
  ASSERT_TRUE(Send(job, status));
  std::vector<int> idle;
  for (int i = 0; i < 10; ++i) idle.push_back(Connect(listenerPort));
  ASSERT_TRUE(logger.WaitFor(Level::LEVEL_INFO, accepted, 10, 10000));
  idle.push_back(Connect(listenerPort));
  ASSERT_TRUE(logger.WaitFor(Level::LEVEL_ERROR, "Too Many Sockets", 1, 10000));

  EXPECT_TRUE(Answer(job).empty());
  EXPECT_EQ(logger.Count(Level::LEVEL_INFO, accepted), 10u);
  for (int fd : idle) close(fd);

  driver->Cleanup();
  SetupOnFreePort();
  ExpectOneYes(job);
}

// Answers pushed from three threads, idle connections and one connection in
// the middle of a document: Cleanup still returns promptly (checked when the
// test ends) and ends the half-written connection.
TEST_F(SoakFaultTest, CleanupUnderLoadReturnsPromptly) {
  QmReferenceJob job;
  Status status;
  ASSERT_TRUE(Send(job, status));
  const std::string answer = AnswerDoc(Hex(job.GetTrackingReceipt()), "3.0", false, "N:Again");
  std::atomic<bool> stop{false};
  std::atomic<int> pushed{0};
  std::vector<std::thread> pushers;
  for (int t = 0; t < 3; ++t) {
    pushers.emplace_back([&] {
      for (int i = 0; i < 2000 && !stop; ++i) pushed += SendInbound(listenerPort, answer) ? 1 : 0;
    });
  }
  std::vector<int> idle;
  for (int i = 0; i < 4; ++i) idle.push_back(Connect(listenerPort));
  const int halfWritten = Connect(listenerPort);
  Write(halfWritten, answer.substr(0, 40));
  ASSERT_TRUE(Eventually([&] { return pushed >= 30; }));

  EXPECT_TRUE(driver->Cleanup());
  stop = true;
  for (std::thread& pusher : pushers) pusher.join();
  EXPECT_TRUE(FinishAndWaitForClose(halfWritten));
  for (int fd : idle) close(fd);
}

// Answers to eight messages arrive while the server has gone silent, so the
// workers taking them wait on their echoes to the handsets when the host
// cleans up: Cleanup still returns within the pool's stop time, and nothing
// is left behind.
TEST_F(SoakFaultTest, CleanupWhileEchoesWaitOnASilentServer) {
  QmReferenceJob jobs[8];
  for (QmReferenceJob& job : jobs) {
    Status status;
    ASSERT_TRUE(Send(job, status));
  }
  server.SetMode(Mode::kSilent);
  std::vector<std::thread> handsets;
  for (QmReferenceJob& job : jobs) {
    const std::string answer = AnswerDoc(Hex(job.GetTrackingReceipt()), "3.0", false, "N:Yes");
    handsets.emplace_back([this, answer] { SendInbound(listenerPort, answer); });
  }
  ASSERT_TRUE(Eventually([&] { return server.Repeats() >= 1; }));
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(driver->Cleanup());
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  for (std::thread& handset : handsets) handset.join();
}

// One handset reached through two OAP servers on one host (two ports). The
// host's queries name handset and host only; the answers to the messages
// sent through either server must come back.
TEST_F(SoakFaultTest, AnswersThroughTwoServersOnOneHostAreHandedBack) {
  LoopbackOapServer other;
  QmReferenceJob viaFirst;
  QmReferenceJob viaSecond;
  Status status;
  ASSERT_TRUE(Send(viaFirst, status));
  Address(viaSecond, "4711", "3.0", true);
  viaSecond.ServerPort = other.Port();
  ASSERT_TRUE(driver->SendAMessage(&viaSecond, status));
  ExpectOneYes(viaFirst);
  ExpectOneYes(viaSecond);
}

}  // namespace
