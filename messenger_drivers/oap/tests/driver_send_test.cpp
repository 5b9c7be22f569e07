// Sending jobs through the loaded driver to the fake server, and querying
// them for the reports and answers the listener received.
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <thread>

#include "driver_fixture.h"

namespace {

using Log = QmLogInterface;

using Reports = QmMessengerReportsMngrInterface;
using Jobs = std::vector<QmMessageFile*>;
const auto kTrace = Log::LEVEL_TRACE;

QmResponseChoice Choice(const char* text, uint32_t kind, const char* value = "") {
  return {0, text, value, 0, kind};
}

class SendTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    SetupOnFreePort();
  }

  // Sends the job and returns the last request the server saw.
  std::string Send(QmReferenceJob& job, bool accepted = true) {
    status = Reports::NO_STATUS;
    EXPECT_EQ(driver->SendAMessage(&job, status), accepted);
    EXPECT_EQ(status, accepted ? Reports::SENT : Reports::SENDING);
    std::vector<std::string> requests = server.Requests();
    return requests.empty() ? "" : requests.back();
  }
  // Sends an interactive job that expects an answer; the hexadecimal id of
  // its message.
  std::string Ask(QmReferenceJob& job, std::list<QmResponseChoice> choices,
                  const std::string& version = "3.0") {
    Address(job, server.Port(), version);
    job.IsInteractive = job.ExpectsResponse = true;
    job.ResponseChoices = std::move(choices);
    Send(job);
    return Hex(std::strtoul(job.GetTrackingReceipt().c_str(), nullptr, 10));
  }
  // Delivers a document on the listener and waits until it was handled
  // (including the echo of an answer to the server).
  void Deliver(const std::string& document) {
    ASSERT_TRUE(SendInbound(listenerPort, document));
    ASSERT_TRUE(logger.WaitFor(kTrace, "Leaving OAPConnectionHandler::OnData", ++delivered, 10000));
  }
  // Queries the job and returns the jobs handed back meanwhile.
  Jobs Query(QmReferenceJob& job) {
    status = Reports::SENT;
    EXPECT_TRUE(driver->Send2WayRespQuery(&job, status));
    return DrainQueue();
  }

  FakeOapServer server;
  Status status = Reports::NO_STATUS;
  size_t delivered = 0;
};

TEST_F(SendTest, RequestsCarryWhatTheJobAsksFor) {
  // Every job carries choices and presentation settings; they are used only
  // when its flags say so.
  // clang-format off
  const struct { const char* version; bool interactive, expectsResponse, settings; std::string present, absent; } cases[] = {
      {"3.0", false, false, false, "<To>4711</To>\n<SubjectText>Subject</SubjectText>\n"
       "<BodyText>Hello</BodyText>", "version=\"4.0\""},
      {"3.0", true, false, false, "<Body service=\"message\">", "<Option"},
      {"4.0", false, false, false, "<DeliveryStatus/>\n</Header>\n<Body service=\"OA-XML\">",
       "Interactive"},
      {"3.0", true, true, false, "<Text>Yes</Text>\n<OnSelection>\n<DataResp>N:Yes</DataResp>\n", ""},
      {"3.0", true, true, false, "<CallNo method=\"\">0815</CallNo>\n<DataResp>F:Call:back", ""},
      {"3.0", true, true, false, "<UserResponse>Other</UserResponse>", ""},
      // Version 4.0 takes every presentation setting; 3.0 only the time to live.
      {"4.0", true, true, true, "<Indication>\n<Intensity>High</Intensity>\n<Urgent/>\n<Colour>red</Colour>\n"
       "<Repetition>\n<Interval_time>10</Interval_time>\n<Number_of_repetitions>3</Number_of_repetitions>\n"
       "</Repetition>\n</Indication>\n<TTL>300</TTL>\n<Priority>2</Priority>\n</Message>\n<Sticky_mode>mode1</Sticky_mode>\n",
       "version=\"3.0\""},
      {"3.0", true, true, true, "<Priority>6</Priority>\n<AvailabilityStatus/><DeliveryStatus/>"
       "<TTL>300</TTL>", "Colour"},
      {"4.0 ", false, false, true, "version=\"3.0\"", ""},  // the version must match exactly
  };
  // clang-format on
  for (const auto& c : cases) {
    QmReferenceJob job;
    Address(job, server.Port(), c.version);
    job.IsInteractive = c.interactive;
    job.ExpectsResponse = c.expectsResponse;
    job.OapSettingsPresent = c.settings;
    job.CustomResponseLabel = "Other";
    job.ResponseChoices = {Choice("Yes", 1), Choice("Call%3aback", 2, "0815")};
    job.TtlMinutes = 5;
    job.Colour = "red";
    job.Urgent = job.StickyMode = true;
    job.Intensity = "High";
    job.RepeatCount = 3;
    job.RepeatInterval = 10;
    job.Priority = 2;
    const std::string request = Send(job);
    SCOPED_TRACE(request);
    EXPECT_NE(request.find(c.present), std::string::npos);
    EXPECT_TRUE(c.absent.empty() || request.find(c.absent) == std::string::npos);
    const std::string tracking =
        std::to_string(std::strtoul(RequestId(request).c_str(), nullptr, 16));
    EXPECT_EQ(job.GetTrackingReceipt(), c.expectsResponse ? tracking : "");
    EXPECT_TRUE(
        logger.Has(kTrace, "Leaving OAPDeviceController::SendAMessage() with " + tracking + "."));
  }
}

TEST_F(SendTest, CallerNumberRules) {
  // In the last row group 1 is left unset while a later group matched: an empty number.
  // clang-format off
  const struct { const char *fixed, *pattern, *number; } cases[] = {
      {"", "Call (\\d+)", "12345"}, {"777", "Call (\\d+)", "777"}, {"777", "", "999"},
      {"", "Ring (\\d+)", "999"}, {"", "\\d+", "999"}, {"", "(unclosed", "999"}, {"", "(x)?", "999"},
      {"", "(x)?(\\d+)", ""}};
  // clang-format on
  for (const auto& c : cases) {
    QmReferenceJob job;
    Address(job, server.Port(), "4.0");
    job.MessageText = "Call 12345 now";
    job.CallerIdDefault = "999";
    job.CallerIdFixed = c.fixed;
    job.CallerIdPattern = c.pattern;
    const std::string request = Send(job);
    EXPECT_EQ(job.GetCallerID(), c.number) << c.pattern;
    EXPECT_EQ(request.find(std::string("<FromEx>\n<Number>") + c.number +
                           "</Number>\n</FromEx>\n") != std::string::npos,
              *c.number != '\0')
        << request;
  }
}

// A failure to connect; the other failures of an exchange and their texts
// are pinned by the controller's tests, the job's error text by qmhost's.
TEST_F(SendTest, FailedSendsKeepSendingStatusAndTellWhy) {
  QmReferenceJob unreachable;
  Address(unreachable, UnusedPort());
  Send(unreachable, false);
  size_t exceptionLines = 0;
  for (const std::string& text : logger.TextsFrom("QmOAPDriver")) {
    exceptionLines += text.rfind("Exception occurred [Exception raised! ", 0) == 0 &&
                      text.find("Msg[Socket Connecting Failed]") != std::string::npos;
  }
  EXPECT_EQ(exceptionLines, 1u);
}

TEST_F(SendTest, ReportsAndAnswersHandTheJobBackOnceEachWithTheirStatus) {
  // Each job offers Yes (kind 0), Stop (kind 2) and Escalate (kind 3).
  const std::string yes = "<DataResp>N:Yes</DataResp>";
  // clang-format off
  const struct { const char* version; std::vector<std::string> inbound /* "": a delivery report */; size_t handedBack;
                 Status status; const char* text; } cases[] = {
      {"3.0", {""}, 1, Reports::DELIVERED, ""},
      {"3.0", {yes, "<DataResp>N:Running late</DataResp>"}, 2, Reports::REPLIED_WITH, "Running late"},
      {"3.0", {yes, yes}, 1, Reports::REPLIED, "Yes"},
      {"3.0", {"<DataResp>F:Stop</DataResp>"}, 1, Reports::REPLIED_SPECIAL_A, "Stop"},
      {"3.0", {"<DataResp>F:Escalate</DataResp>"}, 1, Reports::REPLIED_SPECIAL_B, "Escalate"},
      {"4.0", {"<User_response>On my way</User_response>"}, 1, Reports::REPLIED_WITH, "On my way"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    QmReferenceJob job;
    const std::string hexId =
        Ask(job, {Choice("Yes", 0), Choice("Stop", 2), Choice("Escalate", 3)}, c.version);
    EXPECT_TRUE(Query(job).empty());
    for (const std::string& element : c.inbound) {
      Deliver(element.empty()                   ? ResponseDoc(hexId, 3, 200)
              : std::string(c.version) == "4.0" ? Answer4(hexId, element)
                                                : OptionAnswer(hexId, element));
    }
    EXPECT_EQ(Query(job), Jobs(c.handedBack, &job));
    EXPECT_EQ(logger.Count(Log::LEVEL_INFO,
                           "Handling request from Handset '4711' for Msg Tracking #" +
                               job.GetTrackingReceipt(),
                           true),
              c.inbound.size());
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(job.GetStatusText(), c.text);
    EXPECT_EQ(job.DeliveredFlag, !job.RequeueFlag);
    EXPECT_EQ(job.DeliveredFlag, c.status == Reports::DELIVERED);
    EXPECT_TRUE(Query(job).empty());  // each is collected once
  }
  EXPECT_TRUE(logger.Has(
      Log::LEVEL_DEBUG, "Processing incoming paylaod [<?xml version=\"1.0\" encoding=\"UTF-8\"?>"));
}

// Hostile input on the listener: bytes that cannot begin a document close
// the connection with a warning that shows the first 64 of them; what a
// closing peer leaves unfinished is dropped as no OAP block; option data too
// short for its prefix is logged; a document that never ends closes its
// connection. Answers before it on the same connection still arrive.
TEST_F(SendTest, ListenerDropsWhatItCannotUseAndKeepsTakingAnswers) {
  QmReferenceJob job;
  const std::string hexId = Ask(job, {Choice("Yes", 0)});
  const std::string garbage = "this is <not an OAP document" + std::string(60, '.');
  ASSERT_TRUE(SendInbound(listenerPort, garbage));
  EXPECT_TRUE(logger.WaitFor(
      Log::LEVEL_WARN,
      "received bytes that cannot begin an OAP document [" + garbage.substr(0, 64) + "]", 1,
      10000));
  Deliver(std::string("<OAP-request version=\"4.0\"\0", 27));
  EXPECT_EQ(logger.Count(Log::LEVEL_WARN, "not an OAP block"), 1u);
  Deliver(OptionAnswer(hexId, "<DataResp>X</DataResp>"));
  EXPECT_TRUE(logger.Has(Log::LEVEL_ERROR,
                         "Failed to handle request for Msg Tracking #" + job.GetTrackingReceipt()));

  // Not SendInbound: without a half-close the driver must close the
  // connection itself, on the document that never ends.
  const int fd = ConnectLoopback(listenerPort);
  ASSERT_GE(fd, 0);
  const std::string text = OptionAnswer(hexId, "<DataResp>N:Yes</DataResp>") +
                           OptionAnswer(hexId, "<UserResponse>both</UserResponse>") +
                           "<OAP-request>" + std::string(65536, ' ');
  EXPECT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  char byte;
  pollfd closed{fd, POLLIN, 0};
  EXPECT_TRUE(poll(&closed, 1, 10000) > 0 && recv(fd, &byte, 1, 0) <= 0);
  close(fd);
  EXPECT_TRUE(logger.Has(Log::LEVEL_WARN, "no complete OAP document within 65536 bytes"));
  delivered += 2;
  ASSERT_TRUE(logger.WaitFor(kTrace, "Leaving OAPConnectionHandler::OnData", delivered, 10000));
  EXPECT_EQ(Query(job), Jobs(2, &job));
  EXPECT_EQ(job.GetStatusText(), "both");
}

// A delivery report is handled while another message's send waits for a
// silent server.
TEST_F(SendTest, ReportsAreNotHeldUpByAnotherSendsSlowDispatch) {
  QmReferenceJob job, slow;
  const std::string hexId = Ask(job, {});
  Address(slow, server.Port());
  server.Queue({"", true});
  std::atomic<bool> sendDone{false};
  std::thread slowSend([&] {
    Status ignored;
    EXPECT_FALSE(driver->SendAMessage(&slow, ignored));
    sendDone = true;
  });
  ASSERT_TRUE(server.WaitForRequests(2, 10000));
  Deliver(ResponseDoc(hexId, 3, 200));
  EXPECT_FALSE(sendDone.load());
  slowSend.join();
  EXPECT_EQ(Query(job), Jobs(1, &job));
  EXPECT_EQ(status, Reports::DELIVERED);
}

// A store file keeps a message over a restart of the driver (released and
// loaded again): its answers are handed back as before. A file that cannot
// be used leaves the messages in memory. Restarts under load are the soak's.
TEST_F(SendTest, MessagesInAStoreFileOutliveTheDriver) {
  char folder[] = "/tmp/qm_restart_XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string path = std::string(folder) + "/state.db";
  auto restart = [&](const std::string& file) {
    TearDown();
    DriverTest::SetUp();
    std::map<std::string, std::string> settings{{"MessageStore", file}};
    ASSERT_TRUE(driver->Configure(settings));
    ASSERT_TRUE(SetupWithPort(std::to_string(listenerPort)));
  };
  restart(path);
  QmReferenceJob job;
  const std::string hexId = Ask(job, {Choice("Yes", 0), Choice("Stop", 2)});
  Deliver(OptionAnswer(hexId, "<DataResp>N:Yes</DataResp>"));
  restart(path);
  Deliver(OptionAnswer(hexId, "<DataResp>F:Stop</DataResp>"));
  EXPECT_EQ(Query(job), Jobs(2, &job));
  EXPECT_EQ(status, Reports::REPLIED_SPECIAL_A);

  restart(std::string(folder) + "/other.db");  // lets go of the file, which is then damaged
  std::ofstream(path, std::ios::trunc) << std::string(4096, 'x');
  restart(path);
  EXPECT_EQ(logger.Count(Log::LEVEL_CRITICAL,
                         "Cannot use message store '" + path +
                             "' (file is not a database); keeping messages in memory.",
                         true),
            1u);
  Send(job);
  EXPECT_TRUE(Query(job).empty());
  std::system(("rm -rf " + std::string(folder)).c_str());
}

}  // namespace
