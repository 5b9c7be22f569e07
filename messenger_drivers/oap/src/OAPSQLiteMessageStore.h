#ifndef QM_OAP_OAPSQLITEMESSAGESTORE_H
#define QM_OAP_OAPSQLITEMESSAGESTORE_H

#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "OAPMemoryMessageStore.h"

struct sqlite3;
struct sqlite3_stmt;
class QmLogInterface;

// The message store in an SQLite file, so that messages survive a restart of
// the host. One row per message; every change is one transaction of
// prepared statements in write-ahead-log mode with synchronous=NORMAL, which
// a killed process does not lose (only a power failure may lose the last
// changes). The file is held for this process alone while it is open.
//
// Reads are served from the most recently used messages where they can be;
// the age order of the rows (for Expire) is kept in memory, read when the
// file is opened, rather than in an index every insert would have to change.
// Expire also moves the write-ahead log into the file, so that the commits
// of sends and answers do not wait for that and its syncs.
// A message reserved while it is being sent (state kPending) is kept in
// memory until it gets past that state. A message whose change cannot be
// written keeps working from memory: the failure is logged at error level
// and only that message's survival of a restart is lost.
//
// Thread-safe: one lock serialises all use of the connection. The logger is
// not owned and must outlive the store (null: nothing is logged).
class OAPSQLiteMessageStore : public OAPMessageStore {
 public:
  // Opens the file, creating it when missing. Null, with the reason in
  // `error`, when it cannot be opened or written, is damaged, holds something
  // else than messages, or is open in another process.
  static std::shared_ptr<OAPSQLiteMessageStore> Open(const std::string& path,
                                                     QmLogInterface* logger, std::string* error);
  ~OAPSQLiteMessageStore() override;

  bool Add(const Message& message) override;
  bool SetState(uint32_t tracking, int32_t state) override;
  bool AddResponse(uint32_t tracking, const std::string& reply, bool close,
                   const MessageBody* body) override;
  bool SetBody(uint32_t tracking, const MessageBody& body) override;
  bool TakeResponses(uint32_t tracking, std::list<std::string>* replies) override;
  bool Find(uint32_t tracking, Message* out) override;
  void Forget(uint32_t tracking) override;
  bool AnyInRange(uint32_t first, uint32_t last) override;
  size_t Expire(int64_t createdBefore, size_t keep, size_t batch) override;
  size_t Count() override;

 private:
  struct StatementDeleter {
    void operator()(sqlite3_stmt* statement) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

  OAPSQLiteMessageStore(sqlite3* db, const std::string& path, QmLogInterface* logger);
  // Prepares the statements and reads the age order of the rows; false with
  // `error` set.
  bool Prepare(std::string* error);
  // The rest run with m_mutex held.
  // The message from the file (or the recently used ones).
  bool Load(uint32_t tracking, Message* out);
  // Writes the message as a new row or over its row; false (logged) when
  // the file refuses the change.
  bool Write(const Message& message, bool insert);
  // Reads a message from the file, changes it and writes it back; when the
  // write fails the changed message is kept in memory. `change` returns
  // false to leave the message as it is.
  bool Change(uint32_t tracking, const std::function<bool(Message&)>& change);
  bool IsUnsaved(uint32_t tracking);
  // Runs a statement without result rows that is bound already; true when
  // it succeeded.
  bool Run(sqlite3_stmt* statement);
  // Deletes the row when it is still the one made at `created`; true when
  // a row went.
  bool Delete(uint32_t tracking, int64_t created);
  void LogFailure(const std::string& what);
  // Notes the length of the write-ahead log after each commit.
  static int OnCommit(void* self, sqlite3* db, const char* name, int frames);
  // The recently used messages of the file, most recent first.
  void Remember(const Message& message);
  void Unremember(uint32_t tracking);

  std::mutex m_mutex;
  sqlite3* m_db;
  const std::string m_path;
  QmLogInterface* const m_logger;
  Statement m_insert, m_update, m_select, m_delete, m_range, m_begin, m_commit;
  size_t m_rows = 0;
  int m_logFrames = 0;
  // (created, tracking) of the rows, oldest first; entries of rows removed
  // meanwhile are skipped when they come up.
  std::deque<std::pair<int64_t, uint32_t>> m_age;
  std::list<Message> m_recent;
  std::unordered_map<uint32_t, std::list<Message>::iterator> m_recentByNumber;
  // Messages not in the file: reserved sends, and those a write failed for.
  OAPMemoryMessageStore m_unsaved;
};

#endif
