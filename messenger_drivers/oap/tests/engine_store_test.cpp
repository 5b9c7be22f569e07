// The message stores: the same behaviour from the one in memory and the one
// in an SQLite file, what the file keeps over a reopen, the files it refuses,
// and the sweeper that keeps a store within its bounds.
#include <gtest/gtest.h>

#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "../../../runtime/tests/test_support.h"
#include "MessageBody.h"
#include "OAPMemoryMessageStore.h"
#include "OAPMessageCodec.h"
#include "OAPMessageSweeper.h"
#include "OAPSQLiteMessageStore.h"

namespace {

using Message = OAPMessageStore::Message;
using Replies = std::list<std::string>;
const int32_t kSent = 1, kDelivered = 2;

Message NewMessage(uint32_t tracking, int32_t state, int64_t created = 1000) {
  Message message;
  message.tracking = tracking;
  message.address = "4711@127.0.0.1:7000";
  message.state = state;
  message.created = created;
  auto body = std::make_shared<MessageBody>();
  body->version = "4.0";
  body->id = tracking;
  body->bodyText = "Take it?\r\n<&>";
  body->ttl = 300;
  body->options = {{"Yes", "N:Yes", "", 0, ""}, {"No", "F:No", "0815", 7, "x"}};
  message.body = body;
  return message;
}
std::string Encoded(const MessageBody* body) {
  return body != nullptr ? OAPMessageCodec::EncodeBody(*body) : "";
}

// Both stores behind the one interface; the SQLite one in a fresh file of a
// folder of its own.
class StoreTest : public ::testing::TestWithParam<bool> {
 protected:
  StoreTest() {
    char pattern[] = "/tmp/qm_store_XXXXXX";
    folder = mkdtemp(pattern);
    Reopen();
  }
  ~StoreTest() override {
    store.reset();
    std::system(("rm -rf '" + folder + "'").c_str());
  }
  void Reopen() {
    store.reset();
    std::string error;
    store = GetParam() ? OAPSQLiteMessageStore::Open(path(), &logger, &error)
                       : std::shared_ptr<OAPMessageStore>(new OAPMemoryMessageStore());
    ASSERT_NE(store, nullptr) << error;
  }
  std::string path(const std::string& name = "messages.db") const { return folder + "/" + name; }

  std::string folder;
  RecordingLogger logger;
  std::shared_ptr<OAPMessageStore> store;
};

TEST_P(StoreTest, KeepsStateRepliesAndBodiesOfEachMessage) {
  ASSERT_TRUE(store->Add(NewMessage(10, kSent)));
  EXPECT_FALSE(store->Add(NewMessage(10, kDelivered)));
  EXPECT_TRUE(store->SetState(10, kDelivered));
  EXPECT_TRUE(store->AddResponse(10, "Yes", false, nullptr));
  // A reply goes with the text that echoes it; a final one closes.
  MessageBody echoed = *NewMessage(10, kSent).body;
  echoed.bodyText += "\r\n-->>Yes";
  echoed.replyHeaderAdded = true;
  EXPECT_TRUE(store->AddResponse(10, "On my way", true, &echoed));
  EXPECT_FALSE(store->AddResponse(10, "Late", false, nullptr));

  Message found;
  ASSERT_TRUE(store->Find(10, &found));
  EXPECT_TRUE(found.address == "4711@127.0.0.1:7000" && found.state == kDelivered && found.closed);
  EXPECT_EQ(found.responses, (Replies{"Yes", "On my way"}));
  EXPECT_EQ(Encoded(found.body.get()), Encoded(&echoed));
  Replies replies{"stale"};
  EXPECT_TRUE(store->TakeResponses(10, &replies));
  EXPECT_EQ(replies, (Replies{"Yes", "On my way"}));
  EXPECT_TRUE(store->TakeResponses(10, &replies) && replies.empty());

  // Unknown numbers change nothing.
  EXPECT_FALSE(store->SetState(11, kSent) || store->AddResponse(11, "x", false, nullptr) ||
               store->SetBody(11, echoed) || store->TakeResponses(11, &replies) ||
               store->Find(11, &found));
  // A number that shares another's body gets its own once it is set.
  Message sharing = NewMessage(12, kSent);
  sharing.body = nullptr;
  sharing.bodyOf = 10;
  ASSERT_TRUE(store->Add(sharing));
  ASSERT_TRUE(store->Find(12, &found));
  EXPECT_TRUE(found.body == nullptr && found.bodyOf == 10u);
  EXPECT_TRUE(store->SetBody(12, echoed));
  ASSERT_TRUE(store->Find(12, &found));
  EXPECT_EQ(Encoded(found.body.get()), Encoded(&echoed));
  store->Forget(10);
  EXPECT_FALSE(store->Find(10, &found));
  EXPECT_EQ(store->Count(), 1u);
}

TEST_P(StoreTest, ExpiresByAgeAndByLimitOldestFirstInBatches) {
  for (uint32_t n = 1; n <= 6; ++n)
    ASSERT_TRUE(store->Add(NewMessage(0x30000 + n, kSent, 100 * n)));
  EXPECT_TRUE(store->AnyInRange(0x30000, 0x3ffff));
  EXPECT_FALSE(store->AnyInRange(0x20000, 0x2ffff) || store->AnyInRange(0x30007, 0x3ffff));
  // Older than 250: two; then the oldest beyond three, one batch of one at a time.
  EXPECT_EQ(store->Expire(250, 100, 10), 2u);
  EXPECT_EQ(store->Expire(0, 3, 1), 1u);
  EXPECT_EQ(store->Expire(0, 3, 1), 0u);
  Message found;
  for (uint32_t n = 1; n <= 6; ++n) EXPECT_EQ(store->Find(0x30000 + n, &found), n >= 4) << n;
  EXPECT_EQ(store->Expire(1000, 0, 10), 3u);
  EXPECT_EQ(store->Count(), 0u);
}

// Sends from host threads and answers from listener workers meet in the
// store: every message added from several threads at once is kept whole.
TEST_P(StoreTest, MessagesAddedFromSeveralThreadsAreAllKept) {
  const uint32_t threads = 4, each = 250;
  std::vector<std::thread> adders;
  for (uint32_t t = 0; t < threads; ++t) {
    adders.emplace_back([this, t] {
      for (uint32_t i = 0; i < each; ++i)
        EXPECT_TRUE(store->Add(NewMessage(100 + t * each + i, kSent)));
    });
  }
  for (std::thread& adder : adders) adder.join();
  EXPECT_EQ(store->Count(), threads * each);
  Message found;
  for (uint32_t n = 100; n < 100 + threads * each; ++n) {
    EXPECT_TRUE(store->Find(n, &found) && found.tracking == n && found.state == kSent) << n;
  }
}

class SQLiteStoreTest : public StoreTest {};
INSTANTIATE_TEST_SUITE_P(File, SQLiteStoreTest, ::testing::Values(true));

// What a restart finds: every message past its reservation as it was last
// changed; reservations of sends that never returned are not kept. While it
// is open, the file is this process's alone.
TEST_P(SQLiteStoreTest, ReopenedFileHoldsWhatWasRecorded) {
  ASSERT_TRUE(store->Add(NewMessage(20, kSent)));
  ASSERT_TRUE(store->AddResponse(20, "Yes", false, nullptr));
  ASSERT_TRUE(store->Add(NewMessage(21, OAPMessageStore::kPending)));
  ASSERT_TRUE(store->Add(NewMessage(22, OAPMessageStore::kPending)));
  ASSERT_TRUE(store->SetState(22, kDelivered));
  Replies replies;
  ASSERT_TRUE(store->Add(NewMessage(23, kSent)));
  ASSERT_TRUE(store->AddResponse(23, "No", true, nullptr));
  ASSERT_TRUE(store->TakeResponses(23, &replies));
  Reopen();
  Message found;
  EXPECT_FALSE(store->Find(21, &found));
  ASSERT_TRUE(store->Find(22, &found));
  EXPECT_TRUE(found.state == kDelivered && found.created == 1000);
  EXPECT_EQ(Encoded(found.body.get()), Encoded(NewMessage(22, kSent).body.get()));
  ASSERT_TRUE(store->TakeResponses(20, &replies));
  EXPECT_EQ(replies, Replies{"Yes"});
  ASSERT_TRUE(store->Find(23, &found));
  EXPECT_TRUE(found.closed && found.responses.empty());
  EXPECT_EQ(logger.Count(QmLogInterface::LEVEL_ERROR, ""), 0u);
  std::string error;
  EXPECT_EQ(OAPSQLiteMessageStore::Open(path(), nullptr, &error), nullptr);
  EXPECT_NE(error, "");
}

// Another program's database, a store cut short (pages its tables point to
// are gone) and a missing folder are refused with a reason; a file that is
// no database at all is refused through the plug-in.
TEST_P(SQLiteStoreTest, RefusesFilesItCannotUse) {
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path("other.db").c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(other);
  for (uint32_t n = 1; n <= 300; ++n) ASSERT_TRUE(store->Add(NewMessage(n, kSent)));
  store.reset();
  ASSERT_EQ(truncate(path().c_str(), 4096 * 3), 0);
  for (const char* name : {"other.db", "messages.db", "missing/folder.db"}) {
    std::string error;
    EXPECT_EQ(OAPSQLiteMessageStore::Open(path(name), nullptr, &error), nullptr) << name;
    EXPECT_NE(error, "") << name;
  }
}

INSTANTIATE_TEST_SUITE_P(MemoryAndFile, StoreTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "SQLite" : "Memory";
                         });

TEST(MessageCodecTest, RefusesCutAndAlteredBytes) {
  const std::string bytes = Encoded(NewMessage(1, kSent).body.get());
  MessageBody body;
  ASSERT_TRUE(OAPMessageCodec::DecodeBody(bytes, &body));
  EXPECT_FALSE(OAPMessageCodec::DecodeBody(bytes.substr(0, bytes.size() - 1), &body));
  EXPECT_FALSE(OAPMessageCodec::DecodeBody("\x02" + bytes.substr(1), &body));
  Replies texts;
  EXPECT_TRUE(OAPMessageCodec::DecodeTexts(OAPMessageCodec::EncodeTexts({"a", "", "b"}), &texts));
  EXPECT_EQ(texts, (Replies{"a", "", "b"}));
  EXPECT_FALSE(OAPMessageCodec::DecodeTexts(std::string("\x05\0\0\0ab", 6), &texts));
}

// Its thread sweeps on its own, oldest first down to the limit in batches,
// and stops at once.
TEST(MessageSweeperTest, KeepsTheStoreWithinItsLimit) {
  auto store = std::make_shared<OAPMemoryMessageStore>();
  RecordingLogger logger;
  const int64_t now = OAPMessageStore::Now();
  for (uint32_t n = 1; n <= 600; ++n) store->Add(NewMessage(n, kSent, now));
  store->Add(NewMessage(1000, kSent, now - 61 * 60));  // older than an hour
  OAPMessageSweeper sweeper(store, 60, 100, &logger);
  sweeper.Start();
  EXPECT_TRUE(logger.WaitFor(QmLogInterface::LEVEL_INFO,
                             "Message store: removed 501 messages older than 60 minutes or "
                             "beyond the limit of 100.",
                             1, 10000));
  sweeper.Stop();
  Message found;
  EXPECT_TRUE(store->Find(600, &found) && !store->Find(500, &found));
  EXPECT_EQ(store->Count(), 100u);
}

}  // namespace
