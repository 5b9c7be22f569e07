#include <gtest/gtest.h>

#include <ctime>

#include "QmProtocolDriverInterface.h"
#include "QmReferenceJob.h"
#include "QmReferenceReportsManager.h"

namespace {

// The smallest complete driver: only the pure operations, so everything
// else is the base class's.
class BareDriver : public QmProtocolDriverInterface {
 public:
  const char* GetName() override { return "bare"; }
  const char* GetVersion() override { return "1"; }
  const char* GetProtocolName() override { return "bare protocol"; }
  const char* GetCarrierName() override { return "*"; }
  bool SendAMessage(QmMessageFile*, ReportsStatus&) override { return false; }
};

class PushTest : public ::testing::Test {
 protected:
  PushTest() {
    job.Status = QmMessengerReportsMngrInterface::SENT;
    job.StatusTime = 1234;
    job.RequeueFlag = false;
    job.DeleteFlag = true;
  }

  size_t QueueSize() {
    QmconCriticalSection guard(queue.Lock.GetLockObj(), true, true, false);
    return queue.Jobs.size();
  }

  BareDriver driver;
  QmMessageQueue queue;
  QmReferenceReportsManager reports;
  QmReferenceJob job;
};

TEST_F(PushTest, BaseDefaultsAnswerTrue) {
  std::map<std::string, std::string> settings{{"a", "b"}};
  QmMessengerInstConfBasic conf;
  QmProtocolDriverInterface::ReportsStatus status = QmMessengerReportsMngrInterface::SENDING;
  EXPECT_TRUE(driver.Configure(settings));
  EXPECT_TRUE(driver.Setup(&conf));
  EXPECT_TRUE(driver.PeriodicEvent());
  EXPECT_TRUE(driver.ResetDevice());
  EXPECT_TRUE(driver.Send2WayRespQuery(&job, status));
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENDING);
  EXPECT_TRUE(driver.Cleanup());
  EXPECT_TRUE(driver.ProcessSignal());
  EXPECT_EQ(driver.Logger, nullptr);
  EXPECT_EQ(driver.ReportsManager, nullptr);
}

TEST_F(PushTest, WithoutQueueNothingChanges) {
  EXPECT_FALSE(driver.PushBackMsgFile(&job, QmMessengerReportsMngrInterface::REPLIED, true, "x"));
  EXPECT_FALSE(driver.PushBackMsgFileForDeletion(&job));
  EXPECT_EQ(job.Status, QmMessengerReportsMngrInterface::SENT);
  EXPECT_EQ(job.StatusTime, 1234);
  EXPECT_FALSE(job.RequeueFlag);
  EXPECT_TRUE(job.DeleteFlag);
  EXPECT_EQ(job.GetStatusText(), "");
}

TEST_F(PushTest, NullJobIsRefused) {
  driver.MessageQueue = &queue;
  EXPECT_FALSE(driver.PushBackMsgFile(nullptr, QmMessengerReportsMngrInterface::SENT, true, ""));
  EXPECT_FALSE(driver.PushBackMsgFileForDeletion(nullptr));
  EXPECT_EQ(QueueSize(), 0u);
}

TEST_F(PushTest, PushWithStatusStampsTimeAndAppends) {
  driver.MessageQueue = &queue;
  QmReferenceJob other;
  queue.Jobs.push_back(&other);
  int32_t before = static_cast<int32_t>(std::time(nullptr));
  EXPECT_TRUE(driver.PushBackMsgFile(&job, QmMessengerReportsMngrInterface::REPLIED, true, "Yes"));
  int32_t after = static_cast<int32_t>(std::time(nullptr));
  EXPECT_EQ(job.Status, QmMessengerReportsMngrInterface::REPLIED);
  EXPECT_GE(job.StatusTime, before);
  EXPECT_LE(job.StatusTime, after);
  EXPECT_TRUE(job.RequeueFlag);
  EXPECT_FALSE(job.DeleteFlag);
  EXPECT_EQ(job.GetStatusText(), "Yes");
  ASSERT_EQ(QueueSize(), 2u);
  EXPECT_EQ(queue.Jobs.back(), &job);
}

TEST_F(PushTest, PushWithoutStatusClearsTimeAndKeepsStatus) {
  driver.MessageQueue = &queue;
  EXPECT_TRUE(driver.PushBackMsgFile(&job, QmMessengerReportsMngrInterface::NO_STATUS, false, ""));
  EXPECT_EQ(job.Status, QmMessengerReportsMngrInterface::SENT);
  EXPECT_EQ(job.StatusTime, 0);
  EXPECT_FALSE(job.RequeueFlag);
  EXPECT_FALSE(job.DeleteFlag);
  EXPECT_EQ(QueueSize(), 1u);
}

TEST_F(PushTest, EachHandBackIsRecordedWithItsStatus) {
  driver.MessageQueue = &queue;
  EXPECT_TRUE(driver.PushBackMsgFile(&job, QmMessengerReportsMngrInterface::REPLIED, true, "Yes"));
  EXPECT_TRUE(driver.PushBackMsgFile(&job, QmMessengerReportsMngrInterface::REPLIED_WITH, true,
                                     "Running late"));
  EXPECT_EQ(QueueSize(), 2u);
  auto changes = job.TakeStatusChanges();
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes[0].status, QmMessengerReportsMngrInterface::REPLIED);
  EXPECT_EQ(changes[0].text, "Yes");
  EXPECT_EQ(changes[1].status, QmMessengerReportsMngrInterface::REPLIED_WITH);
  EXPECT_EQ(changes[1].text, "Running late");
  EXPECT_TRUE(job.TakeStatusChanges().empty());
}

TEST_F(PushTest, PushForDeletionOnlySetsTheFlag) {
  driver.MessageQueue = &queue;
  job.DeleteFlag = false;
  job.RequeueFlag = true;
  EXPECT_TRUE(driver.PushBackMsgFileForDeletion(&job));
  EXPECT_TRUE(job.DeleteFlag);
  EXPECT_TRUE(job.RequeueFlag);
  EXPECT_EQ(job.Status, QmMessengerReportsMngrInterface::SENT);
  EXPECT_EQ(job.StatusTime, 1234);
  ASSERT_EQ(QueueSize(), 1u);
  EXPECT_EQ(queue.Jobs.front(), &job);
}

TEST_F(PushTest, ReportNeedsAManager) {
  EXPECT_FALSE(driver.WriteMessageReport(&job, QmMessengerReportsMngrInterface::DELIVERED, "d"));
  EXPECT_EQ(job.Status, QmMessengerReportsMngrInterface::SENT);
}

TEST_F(PushTest, ReportStoresStatusAndPassesEntryOn) {
  driver.ReportsManager = &reports;
  EXPECT_TRUE(driver.WriteMessageReport(&job, QmMessengerReportsMngrInterface::DELIVERED, "d"));
  EXPECT_EQ(job.Status, QmMessengerReportsMngrInterface::DELIVERED);
  EXPECT_TRUE(driver.WriteMessageReport(&job, QmMessengerReportsMngrInterface::NO_STATUS, ""));
  EXPECT_EQ(job.Status, QmMessengerReportsMngrInterface::DELIVERED);
  auto entries = reports.GetEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].status, QmMessengerReportsMngrInterface::DELIVERED);
  EXPECT_EQ(entries[0].note, "d");
  EXPECT_EQ(entries[1].status, QmMessengerReportsMngrInterface::NO_STATUS);
  EXPECT_EQ(entries[1].job, &job);
}

}  // namespace
