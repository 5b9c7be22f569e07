#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "QmReferenceJob.h"
#include "QmReferenceReportsManager.h"

namespace {

QmResponseChoice Choice(const std::string& text, uint32_t kind) {
  QmResponseChoice choice;
  choice.Text = text;
  choice.Kind = kind;
  return choice;
}

TEST(ReferenceJob, StatusWordsAndAnswersCountOnlyTheFirstTime) {
  QmReferenceJob job;
  EXPECT_TRUE(job.AddStatusOnce("DELIVERED"));
  EXPECT_FALSE(job.AddStatusOnce("DELIVERED"));
  EXPECT_TRUE(job.AddStatusOnce("READ"));

  EXPECT_TRUE(job.IsNewResponse("Yes"));
  EXPECT_FALSE(job.IsNewResponse("Yes"));
  EXPECT_TRUE(job.IsNewResponse("yes"));
  // Status words and answers are separate records.
  EXPECT_TRUE(job.IsNewResponse("DELIVERED"));
}

TEST(ReferenceJob, FindChoiceByTextAsGivenOrAsShown) {
  QmReferenceJob job;
  job.ResponseChoices = {Choice("Yes", 0), Choice("No", 2), Choice("Call%3aback", 3)};
  EXPECT_EQ(job.FindChoice("Yes"), 0);
  EXPECT_EQ(job.FindChoice("No"), 1);
  EXPECT_EQ(job.FindChoice("Call%3aback"), 2);
  EXPECT_EQ(job.FindChoice("Call:back"), 2);
  EXPECT_EQ(job.FindChoice("Maybe"), -1);
  EXPECT_EQ(job.FindChoice(""), -1);
  QmReferenceJob empty;
  EXPECT_EQ(empty.FindChoice("Yes"), -1);
}

TEST(ReferenceJob, TextsSetByTheDriverReadBack) {
  QmReferenceJob job;
  job.SetStatusText("answered");
  job.SetErrorText("Unknown Device");
  job.SetTrackingReceipt("65537");
  job.SetCallerID("0815");
  EXPECT_EQ(job.GetStatusText(), "answered");
  EXPECT_EQ(job.GetErrorText(), "Unknown Device");
  EXPECT_EQ(job.GetTrackingReceipt(), "65537");
  EXPECT_EQ(job.TrackingReceipt, "65537");
  EXPECT_EQ(job.GetCallerID(), "0815");
}

TEST(ReferenceJob, HostReadsWhileDriverWrites) {
  QmReferenceJob job;
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      job.SetStatusText(std::to_string(i));
      job.IsNewResponse(std::to_string(i));
    }
    done = true;
  });
  // Every text read mid-write must be one the writer wrote whole.
  do {
    std::string text = job.GetStatusText();
    EXPECT_TRUE(text.empty() || std::stoi(text) >= 0);
  } while (!done);
  writer.join();
  EXPECT_EQ(job.GetStatusText(), "1999");
  EXPECT_FALSE(job.IsNewResponse("1234"));
}

TEST(ReferenceReportsManager, RecordsEntriesInOrder) {
  QmReferenceReportsManager manager;
  QmReferenceJob first;
  QmReferenceJob second;
  EXPECT_TRUE(manager.WriteReport(&first, QmMessengerReportsMngrInterface::SENT, "ok"));
  EXPECT_TRUE(manager.WriteReport(&second, QmMessengerReportsMngrInterface::REPLIED_WITH, ""));
  auto entries = manager.GetEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].job, &first);
  EXPECT_EQ(entries[0].status, QmMessengerReportsMngrInterface::SENT);
  EXPECT_EQ(entries[0].note, "ok");
  EXPECT_EQ(entries[1].job, &second);
  EXPECT_EQ(entries[1].status, 5);
  EXPECT_EQ(entries[1].note, "");
}

}  // namespace
