#include <chrono>
#include <condition_variable>
#include <deque>
#include <iostream>
#include <set>

#include "soak_support.h"

namespace {

using Change = QmReferenceJob::StatusChange;
using Clock = std::chrono::steady_clock;
using Reports = QmMessengerReportsMngrInterface;

const int kMessages = 10000;
const int kWarmUp = 1000;
const int kHostThreads = 4;
const int kPushers = 3;
// Growth of the resident set per message after warm-up: the message state the
// driver keeps (all of it here: the store's limit is far away; about 2 KiB
// measured) and the host's own job records. Sanitizer builds keep freed memory in quarantine.
#ifdef QM_SOAK_SANITIZED
const long kAllowanceBytesPerMessage = 128 * 1024;
#else
const long kAllowanceBytesPerMessage = 4096;
#endif

// What the handset does with message i (by i modulo 5): nothing for a plain
// message, choose one of the choices, or type an answer. The status the host
// must see follows from the choice's kind.
struct Reaction {
  std::string value;
  bool typed;
  Reports::ReportsStatus expected;
};
const Reaction kReactions[] = {
    {"", false, Reports::SENT},
    {"N:Yes", false, Reports::REPLIED},
    {"F:Stop", false, Reports::REPLIED_SPECIAL_A},
    {"F:Escalate", false, Reports::REPLIED_SPECIAL_B},
    {"On my way", true, Reports::REPLIED_WITH},
};

struct Plan {
  QmReferenceJob job;
  const Reaction* reaction = nullptr;
  std::vector<Change> changes;
  bool sent = false;
};

class SoakLoadTest : public SoakDriverTest {
 protected:
  void SetUp() override {
    withLogger = false;  // the resident set then measures the driver's own state
    SoakDriverTest::SetUp();
    for (int i = 0; i < kMessages; ++i) {
      Plan& plan = plans[i];
      plan.reaction = &kReactions[i % 5];
      Address(plan.job, "70" + std::to_string(i % 16), i % 2 ? "4.0" : "3.0",
              !plan.reaction->value.empty());
      plan.job.JobId = "soak-" + std::to_string(i);
      for (const auto& extra : {std::make_pair("Stop", 2u), std::make_pair("Escalate", 3u)}) {
        plan.job.ResponseChoices.push_back(QmResponseChoice{0, extra.first, "", 0, extra.second});
      }
    }
    for (int i = 0; i < kPushers; ++i) pushers.emplace_back([this] { PushLoop(); });
  }

  void TearDown() override {
    StopPushers();
    SoakDriverTest::TearDown();
  }

  void StopPushers() {
    {
      std::lock_guard<std::mutex> guard(pushMutex);
      closing = true;
    }
    pushChanged.notify_all();
    for (std::thread& pusher : pushers) pusher.join();
    pushers.clear();
  }

  // The OAP server's side of the handsets: delivery notices and answers,
  // written to the listener by a few threads while the host goes on.
  void PushLoop() {
    std::unique_lock<std::mutex> lock(pushMutex);
    for (;;) {
      pushChanged.wait(lock, [&] { return closing || !documents.empty(); });
      if (documents.empty()) return;
      const std::string document = std::move(documents.front());
      documents.pop_front();
      lock.unlock();
      const bool written = SendInbound(listenerPort, document);
      lock.lock();
      ++pushed;
      pushFailures += written ? 0 : 1;
      pushChanged.notify_all();
    }
  }

  void Send(Plan& plan) {
    Status status = Reports::NO_STATUS;
    plan.sent = driver->SendAMessage(&plan.job, status);
    EXPECT_EQ(status, plan.sent ? Reports::SENT : Reports::SENDING);
    if (!plan.sent || !plan.job.IsInteractive) return;
    const std::string hexId = Hex(plan.job.GetTrackingReceipt());
    std::lock_guard<std::mutex> guard(pushMutex);
    documents.push_back(ResponseDoc(hexId, 3, 200));
    documents.push_back(
        AnswerDoc(hexId, plan.job.OapVersion, plan.reaction->typed, plan.reaction->value));
    pushChanged.notify_all();
  }

  // One query of each plan still waiting; a plan leaves the list once it was
  // handed back twice (delivery and answer).
  void QueryPass(std::vector<Plan*>& waiting) {
    for (auto it = waiting.begin(); it != waiting.end();) {
      Status status = Reports::SENT;
      driver->Send2WayRespQuery(&(*it)->job, status);
      for (const Change& change : (*it)->job.TakeStatusChanges()) (*it)->changes.push_back(change);
      it = (*it)->changes.size() >= 2 ? waiting.erase(it) : it + 1;
    }
  }

  // Messages [from, to) from the host threads: each sends its share, then
  // queries it until it is complete, waking up whenever documents were pushed.
  void Run(int from, int to) {
    std::vector<std::thread> hosts;
    for (int t = 0; t < kHostThreads; ++t) {
      hosts.emplace_back([this, from, to, t] {
        std::vector<Plan*> waiting;
        for (int i = from + t; i < to; i += kHostThreads) {
          Send(plans[i]);
          if (plans[i].sent && plans[i].job.IsInteractive) waiting.push_back(&plans[i]);
        }
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
        while (!waiting.empty() && Clock::now() < deadline) {
          std::unique_lock<std::mutex> lock(pushMutex);
          const size_t seen = pushed;
          lock.unlock();
          QueryPass(waiting);
          lock.lock();
          pushChanged.wait_for(lock, std::chrono::milliseconds(200), [&] { return pushed > seen; });
        }
      });
    }
    for (std::thread& host : hosts) host.join();
  }

  std::vector<Plan> plans = std::vector<Plan>(kMessages);
  std::vector<std::thread> pushers;
  std::mutex pushMutex;
  std::condition_variable pushChanged;
  std::deque<std::string> documents;
  size_t pushed = 0;
  size_t pushFailures = 0;
  bool closing = false;
};

TEST_F(SoakLoadTest, TenThousandMessagesWithConcurrentAnswers) {
  const Clock::time_point started = Clock::now();
  Run(0, kWarmUp);
  const long warmKiB = ResidentKiB();
  Run(kWarmUp, kMessages);
  const long perMessage = (ResidentKiB() - warmKiB) * 1024 / (kMessages - kWarmUp);
  StopPushers();
  EXPECT_EQ(pushFailures, 0u);

  // One more query of every message hands nothing back.
  std::vector<Plan*> all;
  for (Plan& plan : plans) all.push_back(&plan);
  QueryPass(all);
  std::map<QmMessageFile*, size_t> handedBack;
  for (QmMessageFile* job : DrainQueue()) ++handedBack[job];

  std::set<std::string> receipts;
  size_t interactive = 0;
  for (Plan& plan : plans) {
    QmReferenceJob& job = plan.job;
    ASSERT_TRUE(plan.sent) << job.JobId << ": " << job.GetErrorText();
    if (!job.IsInteractive) {
      EXPECT_EQ(job.GetTrackingReceipt(), "") << job.JobId;
      EXPECT_EQ(handedBack.count(&job), 0u) << job.JobId;
      continue;
    }
    ++interactive;
    receipts.insert(job.GetTrackingReceipt());
    EXPECT_EQ(handedBack[&job], 2u) << job.JobId;
    ASSERT_EQ(plan.changes.size(), 2u) << job.JobId;
    const bool deliveryFirst = plan.changes[0].status == Reports::DELIVERED;
    const Change& delivery = plan.changes[deliveryFirst ? 0 : 1];
    const Change& reply = plan.changes[deliveryFirst ? 1 : 0];
    EXPECT_EQ(delivery.status, Reports::DELIVERED) << job.JobId;
    EXPECT_EQ(delivery.text, "") << job.JobId;
    EXPECT_TRUE(job.DeliveredFlag) << job.JobId;
    EXPECT_EQ(reply.status, plan.reaction->expected) << job.JobId;
    const std::string& value = plan.reaction->value;
    EXPECT_EQ(reply.text, plan.reaction->typed ? value : value.substr(2)) << job.JobId;
  }
  EXPECT_EQ(receipts.size(), interactive);
  EXPECT_EQ(receipts.count(""), 0u);
  // Every message reached the server under a number of its own, and every
  // answer was echoed on the handset once, as an update of its message.
  EXPECT_EQ(server.Messages(), static_cast<size_t>(kMessages));
  EXPECT_EQ(server.Repeats(), interactive);

  std::cout << "[ soak ] " << kMessages << " messages in "
            << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count()
            << " s; resident set " << warmKiB << " KiB after warm-up, then " << perMessage
            << " bytes per message" << std::endl;
  RecordProperty("BytesPerMessage", static_cast<int>(perMessage));
  EXPECT_LE(perMessage, kAllowanceBytesPerMessage);
}

}  // namespace
