// The reference host's job record and driver loader, and what the driver base
// class does for a driver that overrides only the pure operations: handing
// jobs back to the host and reporting.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <thread>
#include <vector>

#include "QmDriverLoader.h"
#include "QmProtocolDriverInterface.h"
#include "QmReferenceJob.h"
#include "QmReferenceReportsManager.h"

namespace {

TEST(ReferenceJob, CountsFirstStatusWordsAndAnswersFindsChoicesByText) {
  QmReferenceJob job;
  // Answers are a separate record from the status words, and case counts.
  const std::vector<bool> firsts{job.AddStatusOnce("DELIVERED"), job.AddStatusOnce("DELIVERED"),
                                 job.IsNewResponse("Yes"),       job.IsNewResponse("Yes"),
                                 job.IsNewResponse("yes"),       job.IsNewResponse("DELIVERED")};
  EXPECT_EQ(firsts, (std::vector<bool>{true, false, true, false, true, true}));
  // A choice is found by its text as given or as shown.
  EXPECT_EQ(job.FindChoice("Yes"), -1);
  job.ResponseChoices = {{0, "Yes", "", 0, 0}, {0, "No", "", 0, 0}, {0, "Call%3aback", "", 0, 0}};
  const std::vector<std::pair<std::string, int>> cases{
      {"Yes", 0}, {"No", 1}, {"Call%3aback", 2}, {"Call:back", 2}, {"Maybe", -1}, {"", -1}};
  for (const auto& c : cases) EXPECT_EQ(job.FindChoice(c.first), c.second) << c.first;
}

// A library that cannot be loaded is named by the program's own tests.
TEST(DriverLoader, NamesAMissingEntryPoint) {
  QmDriverLoader loader;
  EXPECT_FALSE(loader.Load(QM_HALF_PLUGIN_PATH));
  EXPECT_FALSE(loader.IsLoaded());
  EXPECT_NE(loader.GetError().find("does not export 'ReleaseDriverInstance'"), std::string::npos)
      << loader.GetError();
  EXPECT_EQ(loader.GetDriverInstance(), nullptr);
}

using Reports = QmMessengerReportsMngrInterface;

class BareDriver : public QmProtocolDriverInterface {
 public:
  const char* GetName() override { return "bare"; }
  const char* GetVersion() override { return "1"; }
  const char* GetProtocolName() override { return "bare protocol"; }
  const char* GetCarrierName() override { return "*"; }
  bool SendAMessage(QmMessageFile*, ReportsStatus&) override { return false; }
};

// Hand-backs need a queue and a job, then stamp the status and its time and
// append; without a status the time is cleared and the status kept; for
// deletion only the flag changes. Reports store the status and reach the
// manager in order.
TEST(DriverBase, HandsJobsBackAndReportsInOrder) {
  BareDriver driver;
  QmMessageQueue queue;
  QmReferenceReportsManager reports;
  QmReferenceJob job, other;
  job.Status = Reports::SENT;
  job.StatusTime = 1234;
  EXPECT_FALSE(driver.PushBackMsgFile(&job, Reports::REPLIED, true, "x"));
  EXPECT_FALSE(driver.PushBackMsgFileForDeletion(&job));
  driver.MessageQueue = &queue;
  EXPECT_FALSE(driver.PushBackMsgFile(nullptr, Reports::SENT, true, ""));
  EXPECT_FALSE(driver.PushBackMsgFileForDeletion(nullptr));
  EXPECT_TRUE(job.Status == Reports::SENT && job.StatusTime == 1234 && !job.DeleteFlag);
  EXPECT_TRUE(queue.Jobs.empty() && job.TakeStatusChanges().empty());

  queue.Jobs.push_back(&other);
  const int32_t before = static_cast<int32_t>(std::time(nullptr));
  EXPECT_TRUE(driver.PushBackMsgFile(&job, Reports::REPLIED, true, "Yes"));
  EXPECT_TRUE(job.Status == Reports::REPLIED && job.RequeueFlag && job.StatusTime >= before &&
              job.StatusTime <= static_cast<int32_t>(std::time(nullptr)));
  EXPECT_TRUE(driver.PushBackMsgFile(&job, Reports::NO_STATUS, false, "Running late"));
  EXPECT_TRUE(job.Status == Reports::REPLIED && !job.RequeueFlag && job.StatusTime == 0);
  std::string changes;
  for (const auto& change : job.TakeStatusChanges())
    changes += std::to_string(change.status) + ":" + change.text + " ";
  EXPECT_EQ(changes, "4:Yes 4:Running late ");
  job.RequeueFlag = true;
  EXPECT_TRUE(driver.PushBackMsgFileForDeletion(&job));
  EXPECT_TRUE(job.DeleteFlag && job.RequeueFlag && job.StatusTime == 0);
  EXPECT_EQ(queue.Jobs, (std::deque<QmMessageFile*>{&other, &job, &job, &job}));

  EXPECT_FALSE(driver.WriteMessageReport(&job, Reports::DELIVERED, "d"));
  driver.ReportsManager = &reports;
  EXPECT_TRUE(driver.WriteMessageReport(&job, Reports::DELIVERED, "d"));
  EXPECT_TRUE(driver.WriteMessageReport(&job, Reports::NO_STATUS, ""));
  EXPECT_EQ(job.Status, Reports::DELIVERED);
  EXPECT_TRUE(driver.WriteMessageReport(&other, Reports::REPLIED_WITH, "late"));
  std::string entries;
  for (const auto& e : reports.GetEntries())
    entries += std::to_string(e.status) + (e.job == &job ? " job " : " other ") + e.note + "|";
  EXPECT_EQ(entries, "6 job d|0 job |5 other late|");
}

// Listener workers and host threads hand jobs back and write their texts
// while the host reads them: the queue keeps every hand-back and every text
// read is one written whole.
TEST(DriverBase, HandBacksAndJobTextsFromManyThreads) {
  BareDriver driver;
  QmMessageQueue queue;
  driver.MessageQueue = &queue;
  const int threads = 4, each = 5000;
  std::vector<QmReferenceJob> jobs(threads);
  std::atomic<int> running{threads};
  std::vector<std::thread> workers;
  for (QmReferenceJob& job : jobs) {
    workers.emplace_back([&driver, &job, &running] {
      for (int i = 0; i < each; ++i) {
        job.SetStatusText(std::to_string(i));
        job.IsNewResponse(std::to_string(i));
        driver.PushBackMsgFileForDeletion(&job);
      }
      --running;
    });
  }
  do {
    const std::string text = jobs[0].GetStatusText();
    EXPECT_TRUE(text.empty() || std::stoi(text) >= 0);
  } while (running > 0);
  for (std::thread& worker : workers) worker.join();
  for (QmReferenceJob& job : jobs) {
    EXPECT_EQ(std::count(queue.Jobs.begin(), queue.Jobs.end(), &job), each);
    EXPECT_EQ(job.GetStatusText(), std::to_string(each - 1));
    EXPECT_FALSE(job.IsNewResponse("1234"));
    EXPECT_EQ(job.TakeStatusChanges().size(), static_cast<size_t>(each));
  }
}

}  // namespace
