#include "soak_support.h"

namespace {

const int kMessages = 10000 / kSoakScale;
const int kWarmUp = kMessages / 10;
const int kHostThreads = 4;
const int kPushers = 4;
// Growth of the resident set per message after warm-up: the message state the
// driver keeps (all of it here: the store's limit is far away; about 2 KiB
// measured) and the host's own job records. Sanitizer builds keep freed
// memory in quarantine.
const long kAllowanceBytesPerMessage = kSoakScale == 1 ? 4096 : 128 * 1024;

struct Plan {
  QmReferenceJob job;
  Backs backs;
};

// The OAP server delivers notices and answers on a connection per document.
class SoakLoadTest : public SoakDriverTest {
 protected:
  SoakLoadTest() { withLogger = false; }  // the resident set then measures the driver's own state

  // Sends message `index` and queues its notice and answer; false when the
  // driver refused it.
  bool Send(int index) {
    Plan& plan = plans[index];
    Address(plan.job, "70" + std::to_string(index % 16), index % 2 ? "4.0" : "3.0");
    plan.job.JobId = "soak-" + std::to_string(index);
    Status status = Reports::NO_STATUS;
    if (!driver->SendAMessage(&plan.job, status)) return false;
    const std::string hexId = Hex(plan.job.GetTrackingReceipt());
    const Reaction& reaction = ReactionTo(index);
    pusher.Add(ResponseDoc(hexId, 3, 200));
    pusher.Add(AnswerDoc(hexId, plan.job.OapVersion, reaction.typed, reaction.value));
    return true;
  }

  // One query of each plan still waiting; a plan leaves the list once it was
  // handed back twice (delivery and answer).
  void QueryPass(std::vector<Plan*>& waiting) {
    for (auto it = waiting.begin(); it != waiting.end();) {
      Status status = Reports::SENT;
      driver->Send2WayRespQuery(&(*it)->job, status);
      for (const auto& change : (*it)->job.TakeStatusChanges())
        (*it)->backs.insert({change.status, change.text});
      it = (*it)->backs.size() >= 2 ? waiting.erase(it) : it + 1;
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
          if (Send(i)) waiting.push_back(&plans[i]);
        }
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
        while (!waiting.empty() && Clock::now() < deadline) {
          const size_t seen = pusher.AwaitPushed(0, 0);  // the count so far
          QueryPass(waiting);
          pusher.AwaitPushed(seen + 1, 1);
        }
      });
    }
    for (std::thread& host : hosts) host.join();
  }

  std::vector<Plan> plans = std::vector<Plan>(kMessages);
  // Started before SetUp; it pushes once the plans are sent, to the port then set.
  Pusher pusher{kPushers,
                [this](const std::string& document) { SendInbound(listenerPort, document); }};
};

TEST_F(SoakLoadTest, EveryAnswerHandedBackOnce) {
  const Clock::time_point started = Clock::now();
  Run(0, kWarmUp);
  const long warmKiB = ResidentKiB();
  Run(kWarmUp, kMessages);
  const long perMessage = (ResidentKiB() - warmKiB) * 1024 / (kMessages - kWarmUp);
  pusher.Stop(false);

  // One more query of every message hands nothing back.
  std::vector<Plan*> all;
  for (Plan& plan : plans) all.push_back(&plan);
  QueryPass(all);

  for (int i = 0; i < kMessages; ++i) {
    const QmReferenceJob& job = plans[i].job;
    EXPECT_EQ(plans[i].backs, ExpectedBacks(i)) << job.JobId << ": " << job.GetErrorText();
  }
  // Every message reached the server under a number of its own, and its
  // answer was echoed on the handset once, as an update of it.
  const auto requests = server.Requests();
  EXPECT_EQ(requests.size(), static_cast<size_t>(kMessages));
  for (const auto& [hexId, count] : requests) EXPECT_EQ(count, 2u) << hexId;

  std::cout << "[ soak ] " << kMessages << " messages in "
            << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count()
            << " s; resident set " << warmKiB << " KiB after warm-up, then " << perMessage
            << " bytes per message" << std::endl;
  EXPECT_LE(perMessage, kAllowanceBytesPerMessage);
}

}  // namespace
