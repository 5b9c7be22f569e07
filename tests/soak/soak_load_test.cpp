#include <unistd.h>

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

// What the handset answers to message i (by i modulo 4): one of the choices,
// or a typed text. The status the host must see follows from the choice's
// kind.
struct Reaction {
  std::string value;
  bool typed;
  Reports::ReportsStatus expected;
};
const Reaction kReactions[] = {
    {"N:Yes", false, Reports::REPLIED},
    {"F:Stop", false, Reports::REPLIED_SPECIAL_A},
    {"F:Escalate", false, Reports::REPLIED_SPECIAL_B},
    {"On my way", true, Reports::REPLIED_WITH},
};

// How the OAP server delivers notices and answers to the listener.
enum class Push {
  kShort,      // a connection per document: connect, write, close, no waiting
  kLongLived,  // every document of a pusher on one connection
  kSplit,      // a connection per document, written in three pieces 10 ms apart
};

struct Plan {
  QmReferenceJob job;
  const Reaction* reaction = nullptr;
  std::vector<Change> changes;
  bool sent = false;
};

class SoakLoadTest : public SoakDriverTest, public ::testing::WithParamInterface<Push> {
 protected:
  void SetUp() override {
    withLogger = false;  // the resident set then measures the driver's own state
    SoakDriverTest::SetUp();
    for (int i = 0; i < kMessages; ++i) {
      Plan& plan = plans[i];
      plan.reaction = &kReactions[i % 4];
      Address(plan.job, "70" + std::to_string(i % 16), i % 2 ? "4.0" : "3.0", true);
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

  // The next document to push; false when there is none and the test is
  // closing. Waits at most until `until` while other work is pending.
  bool Take(std::string& document, Clock::time_point until) {
    std::unique_lock<std::mutex> lock(pushMutex);
    pushChanged.wait_until(lock, until, [&] { return closing || !documents.empty(); });
    if (documents.empty()) return false;
    document = std::move(documents.front());
    documents.pop_front();
    return true;
  }

  void Pushed(bool written) {
    std::lock_guard<std::mutex> guard(pushMutex);
    ++pushed;
    pushFailures += written ? 0 : 1;
    pushChanged.notify_all();
  }

  bool Closing() {
    std::lock_guard<std::mutex> guard(pushMutex);
    return closing && documents.empty();
  }

  // The OAP server's side of the handsets: delivery notices and answers,
  // written to the listener by a few threads while the host goes on.
  void PushLoop() {
    switch (GetParam()) {
      case Push::kShort:
        for (std::string document; Take(document, Clock::time_point::max());) {
          Pushed(PushShort(listenerPort, document));
        }
        break;
      case Push::kLongLived: {
        const int fd = ConnectLoopback(listenerPort);
        for (std::string document; Take(document, Clock::time_point::max());) {
          Pushed(fd >= 0 && WriteAll(fd, document));
        }
        if (fd >= 0) close(fd);
        break;
      }
      case Push::kSplit:
        PushInPieces();
        break;
    }
  }

  // Keeps up to kSplitInFlight documents on the way, each on a connection of
  // its own, and writes their pieces as they fall due.
  void PushInPieces() {
    struct Piecewise {
      int fd;
      std::string document;
      int written;  // pieces so far
      Clock::time_point due;
    };
    std::deque<Piecewise> inFlight;  // in order of due time
    // Writes the next piece; false once the document is done with.
    auto writeNext = [](Piecewise& piece) {
      const size_t third = piece.document.size() / 3;
      const size_t from = third * piece.written;
      const size_t length = ++piece.written == 3 ? std::string::npos : third;
      return piece.fd >= 0 && WriteAll(piece.fd, piece.document.substr(from, length));
    };
    auto finish = [this](Piecewise& piece, bool written) {
      if (piece.fd >= 0) close(piece.fd);
      Pushed(written);
    };
    for (;;) {
      const Clock::time_point next =
          inFlight.empty() ? Clock::time_point::max() : inFlight.front().due;
      std::string document;
      if (inFlight.size() < kSplitInFlight && Take(document, next)) {
        Piecewise piece{ConnectLoopback(listenerPort), std::move(document), 0, {}};
        if (writeNext(piece)) {
          piece.due = Clock::now() + kPiecePause;
          inFlight.push_back(std::move(piece));
        } else {
          finish(piece, false);
        }
      } else if (inFlight.empty()) {
        if (Closing()) return;
        continue;
      } else {
        std::this_thread::sleep_until(next);
      }
      while (!inFlight.empty() && inFlight.front().due <= Clock::now()) {
        Piecewise piece = std::move(inFlight.front());
        inFlight.pop_front();
        const bool written = writeNext(piece);
        if (piece.written == 3 || !written) {
          finish(piece, written);
          continue;
        }
        piece.due = Clock::now() + kPiecePause;
        inFlight.push_back(std::move(piece));
      }
    }
  }

  void Send(Plan& plan) {
    Status status = Reports::NO_STATUS;
    plan.sent = driver->SendAMessage(&plan.job, status);
    EXPECT_EQ(status, plan.sent ? Reports::SENT : Reports::SENDING);
    if (!plan.sent) return;
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
          if (plans[i].sent) waiting.push_back(&plans[i]);
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

TEST_P(SoakLoadTest, EveryAnswerHandedBackOnce) {
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
  for (Plan& plan : plans) {
    QmReferenceJob& job = plan.job;
    ASSERT_TRUE(plan.sent) << job.JobId << ": " << job.GetErrorText();
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
  EXPECT_TRUE(
      SendInbound(listenerPort, AnswerDoc(Hex(last.GetTrackingReceipt()), "3.0", false, "N:Yes")));
  std::vector<Change> lastChanges;
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (lastChanges.empty() && Clock::now() < deadline) {
    driver->Send2WayRespQuery(&last, status);
    lastChanges = last.TakeStatusChanges();
    if (lastChanges.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(lastChanges.size(), 1u);

  std::cout << "[ soak ] " << kMessages << " messages in "
            << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count()
            << " s; resident set " << warmKiB << " KiB after warm-up, then " << perMessage
            << " bytes per message" << std::endl;
  RecordProperty("BytesPerMessage", static_cast<int>(perMessage));
  EXPECT_LE(perMessage, kAllowanceBytesPerMessage);
}

std::string PushName(const ::testing::TestParamInfo<Push>& info) {
  switch (info.param) {
    case Push::kShort:
      return "ShortConnections";
    case Push::kLongLived:
      return "LongLivedConnections";
    case Push::kSplit:
      return "DocumentsInPieces";
  }
  return "";
}

INSTANTIATE_TEST_SUITE_P(Inbound, SoakLoadTest,
                         ::testing::Values(Push::kShort, Push::kLongLived, Push::kSplit), PushName);

}  // namespace
