#include <fcntl.h>
#include <sys/resource.h>

#include "soak_support.h"

namespace {

using Level = QmLogInterface::LogLevel;

class SoakFaultTest : public SoakDriverTest {
 protected:
  // An interactive message offering "Yes", kept by the fixture: the server
  // takes it (SENT), or with `taken` false the send fails (still SENDING).
  QmReferenceJob& Send(bool taken = true) {
    QmReferenceJob& job = jobs.emplace_back();
    Address(job, "4711", "3.0");
    Status status = Reports::NO_STATUS;
    EXPECT_EQ(driver->SendAMessage(&job, status), taken);
    EXPECT_EQ(status, taken ? Reports::SENT : Reports::SENDING);
    return job;
  }

  // The handset answers "Yes" to the sent job on a connection of its own
  // (unless that was done already); exactly that answer is handed back on
  // the host's queries.
  void ExpectOneYes(QmReferenceJob& job, bool answer = true) {
    if (answer)
      SendInbound(listenerPort,
                  AnswerDoc(Hex(job.GetTrackingReceipt()), job.OapVersion, false, "N:Yes"));
    Backs backs;
    WaitUntil(
        [&] {
          Status status = Reports::SENT;
          driver->Send2WayRespQuery(&job, status);
          DrainQueue();
          for (const auto& change : job.TakeStatusChanges())
            backs.insert({change.status, change.text});
          return !backs.empty();
        },
        10000);
    EXPECT_EQ(backs, (Backs{{Reports::REPLIED, "Yes"}}));
  }

  std::deque<QmReferenceJob> jobs;
};

// The OAP server stays silent (the driver gives up after its read time) or
// answers garbage: the send fails with "Dispatch Failure", and the driver
// goes on as before. (A refused connection is the send tests'.)
TEST_F(SoakFaultTest, ServerFaultsFailTheSendAndTheDriverRecovers) {
  QmReferenceJob& before = Send();
  for (const bool garbage : {false, true}) {
    server.SetFaults(garbage ? 0 : 100, garbage);
    SCOPED_TRACE(garbage ? "garbage" : "silent");
    QmReferenceJob& job = Send(false);
    EXPECT_EQ(job.GetErrorText(), "Dispatch Failure");
    EXPECT_EQ(job.GetTrackingReceipt(), "");
  }
  server.SetFaults(0, false);
  // A message sent before the faults still takes its answer after them.
  ExpectOneYes(before);
  ExpectOneYes(Send());
}

// Idle connections cannot switch the listener off: a thousand are held open
// while a thousand answers arrive on other connections (connect, write,
// close), with one answer to a tracking number nobody sent. The oldest idle
// ones are closed to make room; every answer is handed back once. The host
// had two thousand descriptors open before Setup, so every socket of the
// driver lies past the 1024 that select could watch.
TEST_F(SoakFaultTest, IdleConnectionsNeverShutTheListener) {
  const int count = 1000 / kSoakScale;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 2 * count + 3072);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0) << "hard limit " << limit.rlim_max;
  driver->Cleanup();
  std::vector<int> held;
  for (int i = 0; i < 2000; ++i) held.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  ASSERT_GE(held.back(), 2000);
  SetupOnFreePort();
  for (int i = 0; i < count; ++i) Send();
  std::vector<int> idle;
  std::thread holder([&] {
    for (int i = 0; i < count; ++i) idle.push_back(ConnectLoopback(listenerPort));
  });
  std::atomic<int> resent{0};
  Pusher handsets(4, [&](const std::string& answer) {
    EXPECT_TRUE(SendInbound(listenerPort, answer, &resent));
  });
  for (QmReferenceJob& job : jobs)
    handsets.Add(AnswerDoc(Hex(job.GetTrackingReceipt()), "3.0", false, "N:Yes"));
  EXPECT_TRUE(SendInbound(listenerPort, AnswerDoc("7", "3.0", false, "N:Yes"), &resent));
  holder.join();
  handsets.Stop(false);
  std::cout << "[ soak ] " << count << " answers beside " << count << " idle connections, "
            << resent << " sent again after their connection was closed unread" << std::endl;
  for (QmReferenceJob& job : jobs) ExpectOneYes(job, false);
  EXPECT_TRUE(logger.Has(Level::LEVEL_WARN,
                         "Connection with client [IP address '127.0.0.1'] closed to make room"));
  const char unknown[] = "Couldn't find device controller by Trackign ID";
  EXPECT_TRUE(logger.WaitFor(Level::LEVEL_WARN, unknown, 1, 10000));
  EXPECT_EQ(logger.Count(Level::LEVEL_WARN, unknown), 1u);
  EXPECT_EQ(logger.Count(Level::LEVEL_ERROR, ""), 0u);
  for (int fd : idle) EXPECT_EQ(close(fd), 0);
  for (int fd : held) close(fd);
}

}  // namespace
