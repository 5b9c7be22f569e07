#include <cstdlib>

#include "driver_fixture.h"

namespace {

using Level = QmLogInterface::LogLevel;
using Status = QmMessengerReportsMngrInterface::ReportsStatus;

QmResponseChoice Choice(const std::string& text, uint32_t kind, const std::string& value = "") {
  QmResponseChoice choice;
  choice.Text = text;
  choice.Kind = kind;
  choice.Value = value;
  return choice;
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class SendTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    SetupOnFreePort();
  }

  // Sends the job and returns the one request the server saw ("" if none).
  std::string Send(QmReferenceJob& job, bool expectAccepted) {
    status = QmMessengerReportsMngrInterface::NO_STATUS;
    EXPECT_EQ(driver->SendAMessage(&job, status), expectAccepted);
    std::vector<std::string> requests = server.Requests();
    return requests.empty() ? "" : requests.back();
  }

  FakeOapServer server{AcceptAll};
  QmReferenceJob job;
  Status status = QmMessengerReportsMngrInterface::NO_STATUS;
};

TEST_F(SendTest, PlainMessageIsSentWithoutReceipt) {
  Address(job, server.Port());
  job.CallerIdDefault = "100";
  std::string request = Send(job, true);
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENT);
  EXPECT_EQ(job.GetTrackingReceipt(), "");
  EXPECT_TRUE(Has(request, "<OAP-request version=\"3.0\" id=\"")) << request;
  EXPECT_TRUE(Has(request, "<Body service=\"message\"><To>4711</To>\n")) << request;
  EXPECT_TRUE(Has(request, "<SubjectText>Subject</SubjectText>\n<BodyText>Hello</BodyText>\n"));
  EXPECT_EQ(job.GetCallerID(), "100");
  EXPECT_EQ(logger.Count(Level::LEVEL_TRACE, "Leaving QmOAPDriver::SendAMessage() with TRUE."), 1u);
}

TEST_F(SendTest, InteractiveNeedsBothFlags) {
  Address(job, server.Port());
  job.IsInteractive = true;
  job.ResponseChoices = {Choice("Yes", 0), Choice("No", 1)};
  std::string request = Send(job, true);
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENT);
  EXPECT_EQ(job.GetTrackingReceipt(), "");
  EXPECT_TRUE(Has(request, "<Body service=\"message\">")) << request;
  EXPECT_FALSE(Has(request, "<Option"));
}

TEST_F(SendTest, InteractiveMessageCarriesOptionsAndGetsReceipt) {
  Address(job, server.Port());
  job.IsInteractive = true;
  job.ExpectsResponse = true;
  job.CustomResponseLabel = "Other";
  job.ResponseChoices = {Choice("Yes", 1), Choice("Call%3aback", 2, "0815")};
  std::string request = Send(job, true);
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENT);
  std::string id = RequestId(request);
  ASSERT_FALSE(id.empty());
  EXPECT_EQ(job.GetTrackingReceipt(), std::to_string(std::strtoul(id.c_str(), nullptr, 16)));
  EXPECT_TRUE(Has(
      request, "<Option id=\"1\">\n<Text>Yes</Text>\n<OnSelection>\n<DataResp>N:Yes</DataResp>\n"))
      << request;
  EXPECT_TRUE(Has(request,
                  "<Option id=\"2\">\n<Text>Call:back</Text>\n<OnSelection>\n"
                  "<CallNo method=\"\">0815</CallNo>\n<DataResp>F:Call:back</DataResp>\n"))
      << request;
  EXPECT_TRUE(Has(request, "<UserResponse>Other</UserResponse>")) << request;
}

TEST_F(SendTest, PresentationSettingsOnlyWithTheirFlag) {
  Address(job, server.Port(), "4.0");
  job.TtlMinutes = 5;
  job.Colour = "red";
  job.Urgent = true;
  job.Priority = 2;
  std::string without = Send(job, true);
  EXPECT_TRUE(Has(without, "<OAP-request version=\"4.0\"")) << without;
  EXPECT_FALSE(Has(without, "<TTL>"));
  EXPECT_FALSE(Has(without, "<Colour>"));
  EXPECT_TRUE(Has(without, "<Priority>6</Priority>"));

  job.OapSettingsPresent = true;
  std::string with = Send(job, true);
  EXPECT_TRUE(Has(with, "<TTL>300</TTL>\n<Priority>2</Priority>\n")) << with;
  EXPECT_TRUE(Has(with, "<Urgent/>\n<Colour>red</Colour>\n")) << with;
}

TEST_F(SendTest, TtlInSecondsInTheFlatShape) {
  Address(job, server.Port());
  job.OapSettingsPresent = true;
  job.TtlMinutes = 5;
  std::string request = Send(job, true);
  EXPECT_TRUE(Has(request, "<AvailabilityStatus/><DeliveryStatus/><TTL>300</TTL>\n")) << request;
}

TEST_F(SendTest, CallerNumberRules) {
  Address(job, server.Port(), "4.0");
  job.MessageText = "Call 12345 now";
  job.CallerIdDefault = "999";

  job.CallerIdPattern = "Call (\\d+)";
  EXPECT_TRUE(Has(Send(job, true), "<FromEx>\n<Number>12345</Number>\n</FromEx>\n"));
  EXPECT_EQ(job.GetCallerID(), "12345");
  EXPECT_EQ(logger.Count(Level::LEVEL_DEBUG,
                         "Found Caller ID 'Call 12345 now' from Message Body using Regular "
                         "Expression Pattern 'Call (\\d+)'"),
            1u);

  job.CallerIdFixed = "777";
  EXPECT_TRUE(Has(Send(job, true), "<Number>777</Number>"));
  EXPECT_EQ(job.GetCallerID(), "777");

  job.CallerIdPattern = "";
  Send(job, true);
  EXPECT_EQ(job.GetCallerID(), "999");

  job.CallerIdFixed = "";
  for (const char* fallsBack : {"Ring (\\d+)", "\\d+", "(unclosed", "(x)?"}) {
    job.CallerIdPattern = fallsBack;
    job.SetCallerID("");
    Send(job, true);
    EXPECT_EQ(job.GetCallerID(), "999") << fallsBack;
  }

  // Group 1 left unset while a later group matched: an empty number.
  job.CallerIdPattern = "(x)?(\\d+)";
  std::string request = Send(job, true);
  EXPECT_EQ(job.GetCallerID(), "");
  EXPECT_FALSE(Has(request, "<FromEx>"));
}

TEST_F(SendTest, RefusedMessageKeepsSendingStatus) {
  FakeOapServer refusing(
      [](const std::string& request) { return ResponseDoc(RequestId(request), 1, 407); });
  Address(job, refusing.Port());
  status = QmMessengerReportsMngrInterface::NO_STATUS;
  EXPECT_FALSE(driver->SendAMessage(&job, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENDING);
  EXPECT_EQ(job.GetErrorText(), "Client not registered");
  EXPECT_EQ(job.GetTrackingReceipt(), "");
  EXPECT_EQ(logger.Count(Level::LEVEL_TRACE, "Leaving QmOAPDriver::SendAMessage() with FALSE."),
            1u);
}

TEST_F(SendTest, UnreadableAnswerIsADispatchFailure) {
  FakeOapServer garbling([](const std::string&) { return std::string("<html>busy</html>"); });
  Address(job, garbling.Port());
  status = QmMessengerReportsMngrInterface::NO_STATUS;
  EXPECT_FALSE(driver->SendAMessage(&job, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENDING);
  EXPECT_EQ(job.GetErrorText(), "Dispatch Failure");
}

TEST_F(SendTest, ServerHangingUpFailsTheSend) {
  FakeOapServer silent([](const std::string&) { return std::string(); });
  Address(job, silent.Port());
  status = QmMessengerReportsMngrInterface::NO_STATUS;
  EXPECT_FALSE(driver->SendAMessage(&job, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENDING);
  EXPECT_FALSE(job.GetErrorText().empty());
  EXPECT_EQ(job.GetTrackingReceipt(), "");
}

TEST_F(SendTest, DeadServerIsReported) {
  Address(job, UnusedPort());
  status = QmMessengerReportsMngrInterface::NO_STATUS;
  EXPECT_FALSE(driver->SendAMessage(&job, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENDING);
  EXPECT_EQ(job.GetErrorText(), "Socket Connecting Failed");
  size_t exceptionLines = 0;
  for (const std::string& text : logger.TextsFrom("QmOAPDriver")) {
    if (text.rfind("Exception occurred [Exception raised! ", 0) == 0 &&
        Has(text, "Msg[Socket Connecting Failed]")) {
      ++exceptionLines;
    }
  }
  EXPECT_EQ(exceptionLines, 1u);
}

TEST(DriverWithoutSetup, CallsFailCleanly) {
  QmDriverLoader loader;
  ASSERT_TRUE(loader.Load(QM_DRIVER_PATH)) << loader.GetError();
  QmProtocolDriverInterface* driver = loader.GetDriverInstance();
  QmReferenceJob job;
  job.DeviceId = "1";
  job.ServerHost = "127.0.0.1";
  job.ServerPort = 1;
  QmProtocolDriverInterface::ReportsStatus status = QmMessengerReportsMngrInterface::NO_STATUS;
  EXPECT_FALSE(driver->SendAMessage(&job, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENDING);
  EXPECT_FALSE(job.GetErrorText().empty());
  job.TrackingReceipt = "42";
  EXPECT_TRUE(driver->Send2WayRespQuery(&job, status));
  EXPECT_EQ(job.GetErrorText(), "Unknown Device");
  EXPECT_FALSE(driver->SendAMessage(nullptr, status));
  EXPECT_TRUE(driver->Send2WayRespQuery(nullptr, status));
  loader.ReleaseDriverInstance(driver);
}

}  // namespace
