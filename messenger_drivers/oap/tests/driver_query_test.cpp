#include <chrono>
#include <cstdlib>
#include <thread>

#include "driver_fixture.h"

namespace {

using Level = QmLogInterface::LogLevel;
using Status = QmMessengerReportsMngrInterface::ReportsStatus;

QmResponseChoice Choice(const std::string& text, uint32_t kind) {
  QmResponseChoice choice;
  choice.Text = text;
  choice.Kind = kind;
  return choice;
}

std::string OptionAnswer(const std::string& hexId, const std::string& data) {
  return "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<OAP-response version=\"3.0\" id=\"" +
         hexId +
         "\"><Status service=\"message\"><Type>5</Type><Code>200</Code><TypeSpecific>"
         "<From>4711</From><DataResp>" +
         data + "</DataResp></TypeSpecific></Status></OAP-response>";
}

std::string TypedAnswer(const std::string& hexId, const std::string& text) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"1\">"
         "<Body service=\"OA-XML\"><service version=\"1.0\"><Id>" +
         hexId + "</Id><Interactive_Message_Response><User_response>" + text +
         "</User_response></Interactive_Message_Response></service></Body></OAP-request>";
}

class QueryTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    SetupOnFreePort();
  }

  // Sends an interactive job and returns its tracking number in hex.
  std::string SendInteractive(QmReferenceJob& job, const std::string& id,
                              const std::string& version = "3.0") {
    Address(job, server.Port(), version);
    job.JobId = id;
    job.IsInteractive = true;
    job.ExpectsResponse = true;
    job.ResponseChoices = {Choice("Yes", 0), Choice("Stop", 2), Choice("Escalate", 3)};
    Status status = QmMessengerReportsMngrInterface::NO_STATUS;
    EXPECT_TRUE(driver->SendAMessage(&job, status));
    return Hex(std::strtoul(job.GetTrackingReceipt().c_str(), nullptr, 10));
  }

  // Delivers an answer on the listener and waits for the echo update the
  // driver then sends to the server.
  void Answer(const std::string& document) {
    size_t before = server.Requests().size();
    ASSERT_TRUE(SendInbound(listenerPort, document));
    ASSERT_TRUE(server.WaitForRequests(before + 1, 10000)) << "no update after the answer";
  }

  bool Query(QmReferenceJob& job, Status& status) {
    return driver->Send2WayRespQuery(&job, status);
  }

  FakeOapServer server{AcceptAll};
};

TEST_F(QueryTest, WithoutReceiptTheCycleEnds) {
  QmReferenceJob job;
  Address(job, server.Port());
  Status status = QmMessengerReportsMngrInterface::SENT;
  EXPECT_TRUE(Query(job, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENT);
  EXPECT_EQ(job.GetErrorText(), "Empty or no tracking receipt defined.");
  EXPECT_EQ(logger.Count(Level::LEVEL_ERROR,
                         "Empty or no tracking receipt defined. Terminating query cycle."),
            1u);
  EXPECT_TRUE(DrainQueue().empty());
}

TEST_F(QueryTest, UnknownDeviceIsReported) {
  QmReferenceJob job;
  Address(job, server.Port());
  job.DeviceId = "never-used";
  job.TrackingReceipt = "12345";
  Status status = QmMessengerReportsMngrInterface::SENT;
  EXPECT_TRUE(Query(job, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENT);
  EXPECT_EQ(job.GetErrorText(), "Unknown Device");
  EXPECT_EQ(logger.Count(Level::LEVEL_ERROR, "The device is unknown for me."), 1u);
  EXPECT_TRUE(DrainQueue().empty());
}

TEST_F(QueryTest, DeliveryIsHandedBackOnce) {
  QmReferenceJob job;
  std::string hexId = SendInteractive(job, "job-d");
  Status status = QmMessengerReportsMngrInterface::SENT;
  EXPECT_TRUE(Query(job, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENT);
  EXPECT_TRUE(DrainQueue().empty());

  ASSERT_TRUE(SendInbound(listenerPort, ResponseDoc(hexId, 3, 200)));
  std::vector<QmMessageFile*> handedBack;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (handedBack.empty() && std::chrono::steady_clock::now() < deadline) {
    ASSERT_TRUE(Query(job, status));
    handedBack = DrainQueue();
    if (handedBack.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_EQ(handedBack.size(), 1u);
  EXPECT_EQ(handedBack[0], &job);
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::DELIVERED);
  EXPECT_EQ(job.Status, QmMessengerReportsMngrInterface::DELIVERED);
  EXPECT_TRUE(job.DeliveredFlag);
  EXPECT_FALSE(job.RequeueFlag);
  EXPECT_EQ(job.GetStatusText(), "");

  EXPECT_TRUE(Query(job, status));
  EXPECT_TRUE(DrainQueue().empty());
}

TEST_F(QueryTest, EveryNewAnswerHandsTheJobBack) {
  QmReferenceJob job;
  std::string hexId = SendInteractive(job, "job-a");
  Answer(OptionAnswer(hexId, "N:Yes"));
  Answer(OptionAnswer(hexId, "N:Running late"));
  Status status = QmMessengerReportsMngrInterface::SENT;
  EXPECT_TRUE(Query(job, status));
  std::vector<QmMessageFile*> handedBack = DrainQueue();
  ASSERT_EQ(handedBack.size(), 2u);
  EXPECT_EQ(handedBack[0], &job);
  EXPECT_EQ(handedBack[1], &job);
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::REPLIED_WITH);
  EXPECT_EQ(job.Status, QmMessengerReportsMngrInterface::REPLIED_WITH);
  EXPECT_EQ(job.GetStatusText(), "Running late");
  EXPECT_TRUE(job.RequeueFlag);
  EXPECT_EQ(logger.Count(Level::LEVEL_INFO, "Creating REPORT entry REPLIED_WITH for job: job-a."),
            1u);

  // Each answer is collected once.
  EXPECT_TRUE(Query(job, status));
  EXPECT_TRUE(DrainQueue().empty());
}

TEST_F(QueryTest, RepeatedAnswerIsNotHandedBackAgain) {
  QmReferenceJob job;
  std::string hexId = SendInteractive(job, "job-r");
  Answer(OptionAnswer(hexId, "N:Yes"));
  Answer(OptionAnswer(hexId, "N:Yes"));
  Status status = QmMessengerReportsMngrInterface::SENT;
  EXPECT_TRUE(Query(job, status));
  EXPECT_EQ(DrainQueue().size(), 1u);
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::REPLIED);
  EXPECT_EQ(logger.Count(Level::LEVEL_DEBUG, "<job-r> Response 'Yes' is not a new one"), 1u);
}

TEST_F(QueryTest, SpecialChoicesHaveTheirOwnStatuses) {
  QmReferenceJob stopJob;
  QmReferenceJob escalateJob;
  std::string stopId = SendInteractive(stopJob, "job-s");
  std::string escalateId = SendInteractive(escalateJob, "job-e");
  Answer(OptionAnswer(stopId, "F:Stop"));
  Answer(OptionAnswer(escalateId, "F:Escalate"));

  Status status = QmMessengerReportsMngrInterface::SENT;
  EXPECT_TRUE(Query(stopJob, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::REPLIED_SPECIAL_A);
  EXPECT_TRUE(Query(escalateJob, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::REPLIED_SPECIAL_B);
  std::vector<QmMessageFile*> handedBack = DrainQueue();
  ASSERT_EQ(handedBack.size(), 2u);
  EXPECT_EQ(handedBack[0], &stopJob);
  EXPECT_EQ(handedBack[1], &escalateJob);
  EXPECT_EQ(stopJob.Status, QmMessengerReportsMngrInterface::REPLIED_SPECIAL_A);
  EXPECT_EQ(escalateJob.Status, QmMessengerReportsMngrInterface::REPLIED_SPECIAL_B);
}

TEST_F(QueryTest, TypedAnswerToAVersionFourMessage) {
  QmReferenceJob job;
  std::string hexId = SendInteractive(job, "job-4", "4.0");
  Answer(TypedAnswer(hexId, "On my way"));
  Status status = QmMessengerReportsMngrInterface::SENT;
  EXPECT_TRUE(Query(job, status));
  EXPECT_EQ(DrainQueue().size(), 1u);
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::REPLIED_WITH);
  EXPECT_EQ(job.GetStatusText(), "On my way");
}

}  // namespace
