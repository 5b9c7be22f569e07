// Sending jobs through the loaded driver to the fake server, and querying
// them for the reports and answers the listener received.
#include <cstdlib>

#include "driver_fixture.h"

namespace {

using Log = QmLogInterface;

using Reports = QmMessengerReportsMngrInterface;
using Jobs = std::vector<QmMessageFile*>;
const auto kTrace = Log::LEVEL_TRACE;

QmResponseChoice Choice(const std::string& text, uint32_t kind, const std::string& value = "") {
  QmResponseChoice choice;
  choice.Text = text;
  choice.Kind = kind;
  choice.Value = value;
  return choice;
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
  // Sends an interactive job and returns its tracking number in hex.
  std::string SendInteractive(QmReferenceJob& job, const std::string& id,
                              const std::string& version = "3.0") {
    Address(job, server.Port(), version);
    job.JobId = id;
    job.IsInteractive = job.ExpectsResponse = true;
    job.ResponseChoices = {Choice("Yes", 0), Choice("Stop", 2), Choice("Escalate", 3)};
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

  FakeOapServer server{AcceptAll};
  Status status = Reports::NO_STATUS;
  size_t delivered = 0;
};

TEST_F(SendTest, RequestsCarryWhatTheJobAsksFor) {
  // Every job carries choices and presentation settings; they are used only
  // when its flags say so.
  struct Case {
    struct {
      const char* version;
      bool interactive, expectsResponse, settings;
    } job;
    std::vector<std::string> present, absent;
  } cases[] = {
      {{"3.0", false, false, false},
       {"<OAP-request version=\"3.0\" id=\"", "<Body service=\"message\"><To>4711</To>\n",
        "<SubjectText>Subject</SubjectText>\n<BodyText>Hello</BodyText>\n<Priority>6</Priority>"},
       {"<TTL>", "<Option"}},
      {{"3.0", true, false, false}, {"<Body service=\"message\">"}, {"<Option"}},
      {{"3.0", true, true, false},
       {"<Option id=\"1\">\n<Text>Yes</Text>\n<OnSelection>\n<DataResp>N:Yes</DataResp>\n",
        "<Option id=\"2\">\n<Text>Call:back</Text>\n<OnSelection>\n"
        "<CallNo method=\"\">0815</CallNo>\n<DataResp>F:Call:back</DataResp>\n",
        "<UserResponse>Other</UserResponse>"},
       {}},
      {{"4.0", false, false, false},
       {"<OAP-request version=\"4.0\"", "<Priority>6</Priority>"},
       {"<TTL>", "<Colour>"}},
      {{"4.0", false, false, true},
       {"<TTL>300</TTL>\n<Priority>2</Priority>\n", "<Urgent/>\n<Colour>red</Colour>\n"},
       {}},
      {{"3.0", false, false, true}, {"<AvailabilityStatus/><DeliveryStatus/><TTL>300</TTL>\n"}, {}},
  };
  for (const Case& c : cases) {
    QmReferenceJob job;
    Address(job, server.Port(), c.job.version);
    job.IsInteractive = c.job.interactive;
    job.ExpectsResponse = c.job.expectsResponse;
    job.OapSettingsPresent = c.job.settings;
    job.CustomResponseLabel = "Other";
    job.ResponseChoices = {Choice("Yes", 1), Choice("Call%3aback", 2, "0815")};
    job.TtlMinutes = 5;
    job.Colour = "red";
    job.Urgent = true;
    job.Priority = 2;
    const std::string request = Send(job);
    SCOPED_TRACE(request);
    for (const std::string& part : c.present) EXPECT_NE(request.find(part), std::string::npos);
    for (const std::string& part : c.absent) EXPECT_EQ(request.find(part), std::string::npos);
    EXPECT_EQ(job.GetTrackingReceipt(),
              c.job.expectsResponse
                  ? std::to_string(std::strtoul(RequestId(request).c_str(), nullptr, 16))
                  : "");
  }
  EXPECT_EQ(logger.Count(kTrace, "Leaving QmOAPDriver::SendAMessage() with TRUE.", true),
            sizeof cases / sizeof cases[0]);
}

TEST_F(SendTest, CallerNumberRules) {
  struct Case {
    const char *fixed, *pattern, *number;
  } cases[] = {
      {"", "Call (\\d+)", "12345"},
      {"777", "Call (\\d+)", "777"},
      {"777", "", "999"},
      {"", "", "999"},
      {"", "Ring (\\d+)", "999"},
      {"", "\\d+", "999"},
      {"", "(unclosed", "999"},
      {"", "(x)?", "999"},
      // Group 1 left unset while a later group matched: an empty number.
      {"", "(x)?(\\d+)", ""},
  };
  for (const Case& c : cases) {
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
  EXPECT_EQ(logger.Count(Log::LEVEL_DEBUG,
                         "Found Caller ID 'Call 12345 now' from Message Body using Regular "
                         "Expression Pattern 'Call (\\d+)'",
                         true),
            1u);
}

TEST_F(SendTest, FailedSendsKeepSendingStatusAndTellWhy) {
  const std::string refused = ResponseDoc("0", 1, 407);  // the id is not checked
  struct Case {
    const char *reply, *error;
  } cases[] = {
      {refused.c_str(), "Client not registered"},
      {"<html>busy</html>", "Dispatch Failure"},
      {"", "Socket is closed"},  // the server hangs up
  };
  for (const Case& c : cases) {
    server.Queue({c.reply});
    QmReferenceJob job;
    Address(job, server.Port());
    Send(job, false);
    EXPECT_EQ(job.GetTrackingReceipt(), "");
    EXPECT_EQ(job.GetErrorText(), c.error);
  }
  QmReferenceJob job;
  Address(job, UnusedPort());
  Send(job, false);
  EXPECT_EQ(job.GetErrorText(), "Socket Connecting Failed");
  EXPECT_EQ(logger.Count(kTrace, "Leaving QmOAPDriver::SendAMessage() with FALSE.", true), 4u);
  size_t exceptionLines = 0;
  for (const std::string& text : logger.TextsFrom("QmOAPDriver")) {
    exceptionLines += text.rfind("Exception occurred [Exception raised! ", 0) == 0 &&
                      text.find("Msg[Socket Connecting Failed]") != std::string::npos;
  }
  EXPECT_EQ(exceptionLines, 1u);
}

TEST_F(SendTest, QueriesWithoutReceiptOrForUnknownDevicesEndTheCycle) {
  QmReferenceJob job;
  Address(job, server.Port());
  EXPECT_TRUE(Query(job).empty());
  EXPECT_EQ(status, Reports::SENT);
  EXPECT_EQ(job.GetErrorText(), "Empty or no tracking receipt defined.");
  EXPECT_EQ(logger.Count(Log::LEVEL_ERROR,
                         "Empty or no tracking receipt defined. Terminating query cycle.", true),
            1u);

  job.DeviceId = "never-used";
  job.TrackingReceipt = "12345";
  EXPECT_TRUE(Query(job).empty());
  EXPECT_EQ(status, Reports::SENT);
  EXPECT_EQ(job.GetErrorText(), "Unknown Device");
  EXPECT_EQ(logger.Count(Log::LEVEL_ERROR, "The device is unknown for me.", true), 1u);
}

TEST_F(SendTest, ReportsAndAnswersHandTheJobBackOnceEachWithTheirStatus) {
  // The job offers Yes (kind 0), Stop (kind 2) and Escalate (kind 3).
  const std::string yes = "<DataResp>N:Yes</DataResp>";
  struct Case {
    const char* version;
    std::vector<std::string> inbound;  // "" stands for a delivery report
    size_t handedBack;
    Status status;
    const char* text;
  } cases[] = {
      {"3.0", {""}, 1, Reports::DELIVERED, ""},
      {"3.0",
       {yes, "<DataResp>N:Running late</DataResp>"},
       2,
       Reports::REPLIED_WITH,
       "Running late"},
      {"3.0", {yes, yes}, 1, Reports::REPLIED, "Yes"},
      {"3.0", {"<DataResp>F:Stop</DataResp>"}, 1, Reports::REPLIED_SPECIAL_A, "Stop"},
      {"3.0", {"<DataResp>F:Escalate</DataResp>"}, 1, Reports::REPLIED_SPECIAL_B, "Escalate"},
      {"4.0", {"<User_response>On my way</User_response>"}, 1, Reports::REPLIED_WITH, "On my way"},
  };
  int number = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    QmReferenceJob job;
    const std::string hexId = SendInteractive(job, "job-" + std::to_string(number++), c.version);
    EXPECT_TRUE(Query(job).empty());
    EXPECT_EQ(status, Reports::SENT);
    for (const std::string& element : c.inbound) {
      Deliver(element.empty()                   ? ResponseDoc(hexId, 3, 200)
              : std::string(c.version) == "4.0" ? Answer4(hexId, element)
                                                : OptionAnswer(hexId, element));
    }
    EXPECT_EQ(Query(job), Jobs(c.handedBack, &job));
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(job.Status, c.status);
    EXPECT_EQ(job.GetStatusText(), c.text);
    EXPECT_EQ(job.DeliveredFlag, c.status == Reports::DELIVERED);
    EXPECT_EQ(job.RequeueFlag, c.status != Reports::DELIVERED);
    EXPECT_TRUE(Query(job).empty());  // each is collected once
  }
  EXPECT_EQ(
      logger.Count(Log::LEVEL_INFO, "Creating REPORT entry REPLIED_WITH for job: job-1.", true),
      1u);
  EXPECT_EQ(logger.Count(Log::LEVEL_DEBUG, "<job-2> Response 'Yes' is not a new one", true), 1u);
}

}  // namespace
