#include <unistd.h>

#include <optional>

#include "soak_support.h"

namespace {

using Change = QmReferenceJob::StatusChange;

const int kMessages = 10000 / kSoakScale;
const int kWarmUp = kMessages / 10;
const int kHostThreads = 4;
const int kPushers = 4;
// Documents a splitting pusher has on the way at once, and the pause between
// their pieces.
const size_t kSplitInFlight = 40;
const auto kPiecePause = std::chrono::milliseconds(10);
// Growth of the resident set per message after warm-up: the message state the
// driver keeps (all of it here: the store's limit is far away; about 2 KiB
// measured) and the host's own job records. Sanitizer builds keep freed memory in quarantine.
#ifdef QM_SOAK_SANITIZED
const long kAllowanceBytesPerMessage = 128 * 1024;
#else
const long kAllowanceBytesPerMessage = 4096;
#endif

// How the OAP server delivers notices and answers to the listener.
enum class Push {
  kShort,      // a connection per document: connect, write, close, no waiting
  kLongLived,  // every document of a pusher on one connection
  kSplit,      // a connection per document, written in three pieces 10 ms apart
};

// Keeps up to kSplitInFlight documents on the way, each on a connection of
// its own, and writes their thirds as they fall due.
void PushInPieces(Pusher& pusher, int port) {
  struct Piecewise {
    int fd;
    std::string document;
    int written;  // thirds so far
    bool ok;
    Clock::time_point due;
  };
  auto writeNext = [](Piecewise& doc) {
    const size_t third = doc.document.size() / 3, from = third * doc.written;
    const size_t length = ++doc.written == 3 ? std::string::npos : third;
    doc.ok = doc.ok && doc.fd >= 0 && WriteAll(doc.fd, doc.document.substr(from, length));
    doc.due = Clock::now() + kPiecePause;
  };
  std::deque<Piecewise> inFlight;  // in order of due time
  for (;;) {
    const Clock::time_point next =
        inFlight.empty() ? Clock::time_point::max() : inFlight.front().due;
    std::string document;
    if (inFlight.size() < kSplitInFlight && pusher.Take(document, next)) {
      inFlight.push_back({ConnectLoopback(port), std::move(document), 0, true, {}});
      writeNext(inFlight.back());
    } else if (inFlight.empty()) {
      return;  // stopped, and nothing left
    } else {
      std::this_thread::sleep_until(next);
    }
    while (!inFlight.empty() && inFlight.front().due <= Clock::now()) {
      Piecewise doc = std::move(inFlight.front());
      inFlight.pop_front();
      writeNext(doc);
      if (doc.written < 3) {
        inFlight.push_back(std::move(doc));
      } else {
        if (doc.fd >= 0) close(doc.fd);
        pusher.Done(doc.ok);
      }
    }
  }
}

struct Plan {
  QmReferenceJob job;
  std::vector<Change> changes;
  bool sent = false;
};

class SoakLoadTest : public SoakDriverTest, public ::testing::WithParamInterface<Push> {
 protected:
  void SetUp() override {
    withLogger = false;  // the resident set then measures the driver's own state
    SoakDriverTest::SetUp();
    for (int i = 0; i < kMessages; ++i) {
      Address(plans[i].job, "70" + std::to_string(i % 16), i % 2 ? "4.0" : "3.0", true);
      plans[i].job.JobId = "soak-" + std::to_string(i);
    }
    const int port = listenerPort;
    switch (GetParam()) {
      case Push::kShort:
        pusher.emplace(kPushers, Pusher::Each([port](const std::string& document) {
                         return PushShort(port, document);
                       }));
        break;
      case Push::kLongLived:
        pusher.emplace(kPushers, [port](Pusher& self) {
          const int fd = ConnectLoopback(port);
          for (std::string document; self.Take(document);) {
            self.Done(fd >= 0 && WriteAll(fd, document));
          }
          if (fd >= 0) close(fd);
        });
        break;
      case Push::kSplit:
        pusher.emplace(kPushers, [port](Pusher& self) { PushInPieces(self, port); });
        break;
    }
  }

  void TearDown() override {
    pusher.reset();
    SoakDriverTest::TearDown();
  }

  void Send(int index) {
    Plan& plan = plans[index];
    Status status = Reports::NO_STATUS;
    plan.sent = driver->SendAMessage(&plan.job, status);
    EXPECT_EQ(status, plan.sent ? Reports::SENT : Reports::SENDING);
    if (!plan.sent) return;
    const std::string hexId = Hex(plan.job.GetTrackingReceipt());
    const Reaction& reaction = ReactionTo(index);
    pusher->Add(ResponseDoc(hexId, 3, 200));
    pusher->Add(AnswerDoc(hexId, plan.job.OapVersion, reaction.typed, reaction.value));
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
          Send(i);
          if (plans[i].sent) waiting.push_back(&plans[i]);
        }
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
        while (!waiting.empty() && Clock::now() < deadline) {
          const size_t seen = pusher->AwaitPushed(0, 0);  // the count so far
          QueryPass(waiting);
          pusher->AwaitPushed(seen + 1, 1);
        }
      });
    }
    for (std::thread& host : hosts) host.join();
  }

  std::vector<Plan> plans = std::vector<Plan>(kMessages);
  std::optional<Pusher> pusher;
};

TEST_P(SoakLoadTest, EveryAnswerHandedBackOnce) {
  const Clock::time_point started = Clock::now();
  Run(0, kWarmUp);
  const long warmKiB = ResidentKiB();
  Run(kWarmUp, kMessages);
  const long perMessage = (ResidentKiB() - warmKiB) * 1024 / (kMessages - kWarmUp);
  pusher->Stop(false);
  EXPECT_EQ(pusher->Failures(), 0u);

  // One more query of every message hands nothing back.
  std::vector<Plan*> all;
  for (Plan& plan : plans) all.push_back(&plan);
  QueryPass(all);

  std::set<std::string> receipts;
  for (int i = 0; i < kMessages; ++i) {
    QmReferenceJob& job = plans[i].job;
    ASSERT_TRUE(plans[i].sent) << job.JobId << ": " << job.GetErrorText();
    receipts.insert(job.GetTrackingReceipt());
    Backs backs;
    for (const Change& change : plans[i].changes) backs.insert({change.status, change.text});
    EXPECT_EQ(backs, ExpectedBacks(i)) << job.JobId;
    EXPECT_TRUE(job.DeliveredFlag) << job.JobId;
  }
  EXPECT_EQ(receipts.size(), static_cast<size_t>(kMessages));
  EXPECT_EQ(receipts.count(""), 0u);
  // Every message reached the server under a number of its own, and every
  // answer was echoed on the handset once, as an update of its message.
  EXPECT_EQ(server.Messages(), static_cast<size_t>(kMessages));
  EXPECT_EQ(server.Repeats(), static_cast<size_t>(kMessages));

  // The listener still takes answers.
  QmReferenceJob last;
  Address(last, "7099", "3.0", true);
  Status status;
  ASSERT_TRUE(driver->SendAMessage(&last, status));
  ExpectOneYes(last);

  std::cout << "[ soak ] " << kMessages << " messages in "
            << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count()
            << " s; resident set " << warmKiB << " KiB after warm-up, then " << perMessage
            << " bytes per message" << std::endl;
  RecordProperty("BytesPerMessage", static_cast<int>(perMessage));
  EXPECT_LE(perMessage, kAllowanceBytesPerMessage);
}

std::string PushName(const ::testing::TestParamInfo<Push>& info) {
  const char* names[] = {"ShortConnections", "LongLivedConnections", "DocumentsInPieces"};
  return names[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Inbound, SoakLoadTest,
                         ::testing::Values(Push::kShort, Push::kLongLived, Push::kSplit), PushName);

}  // namespace
