#include "OAPSQLiteMessageStore.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include "MessageBody.h"
#include "OAPMessageCodec.h"
#include "QmLogInterface.h"
#include "QmString.h"

namespace {

const char kSource[] = "messenger_drivers/oap/src/OAPSQLiteMessageStore";
// Marks a file as a message store ("QMST"), and the layout of its table.
const int kApplicationId = 0x514d5354;
const int kLayout = 1;
// How long opening waits for a file that another connection is writing.
const int kBusyTimeoutMs = 500;
// Messages kept decoded for reads without the file.
const size_t kRecentMessages = 4096;
// The write-ahead log is moved into the file by Expire (the sweeper's
// thread) rather than by the commit that fills it, so that a send does not
// wait for the copy and its syncs. A log this long (64 MiB of pages) is
// moved by the commit all the same, for a store nobody sweeps.
const int kLogFramesLimit = 16384;
const char kLogSizeLimit[] = "PRAGMA journal_size_limit=4194304";

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS messages("
    "tracking INTEGER PRIMARY KEY, address TEXT NOT NULL, state INTEGER NOT NULL, "
    "closed INTEGER NOT NULL, responses BLOB, body BLOB, body_of INTEGER NOT NULL, "
    "created INTEGER NOT NULL);";
// Insert and update bind the same parameters: ?1 the tracking number, then
// the columns in table order.
const char kInsert[] =
    "INSERT INTO messages(tracking, address, state, closed, responses, body, body_of, created) "
    "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)";
const char kUpdate[] =
    "UPDATE messages SET address = ?2, state = ?3, closed = ?4, responses = ?5, body = ?6, "
    "body_of = ?7, created = ?8 WHERE tracking = ?1";
const char kSelect[] =
    "SELECT address, state, closed, responses, body, body_of, created FROM messages "
    "WHERE tracking = ?1";
// With ?2 -1 any row of the number goes; else only the one made then.
const char kDelete[] = "DELETE FROM messages WHERE tracking = ?1 AND (?2 < 0 OR created = ?2)";
const char kRange[] = "SELECT 1 FROM messages WHERE tracking BETWEEN ?1 AND ?2 LIMIT 1";
const char kAges[] = "SELECT created, tracking FROM messages";

// Resets a statement and its bindings when the scope ends.
class Use {
 public:
  explicit Use(sqlite3_stmt* statement) : m_statement(statement) {}
  ~Use() {
    sqlite3_reset(m_statement);
    sqlite3_clear_bindings(m_statement);
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

 private:
  sqlite3_stmt* const m_statement;
};

std::string Column(sqlite3_stmt* statement, int column) {
  const void* bytes = sqlite3_column_blob(statement, column);
  const int size = sqlite3_column_bytes(statement, column);
  return bytes != nullptr ? std::string(static_cast<const char*>(bytes), size) : std::string();
}

void BindBlob(sqlite3_stmt* statement, int parameter, const std::string& bytes) {
  sqlite3_bind_blob(statement, parameter, bytes.data(), static_cast<int>(bytes.size()),
                    SQLITE_TRANSIENT);
}

// The one text result of a pragma or query; false when it fails.
bool QueryText(sqlite3* db, const char* sql, std::string* out) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) return false;
  const int rc = sqlite3_step(statement);
  if (rc == SQLITE_ROW) {
    const unsigned char* text = sqlite3_column_text(statement, 0);
    *out = text != nullptr ? reinterpret_cast<const char*>(text) : "";
  }
  sqlite3_finalize(statement);
  return rc == SQLITE_ROW;
}

// Locks the file for this connection and gives it the table: a new file
// gets it, a file of ours keeps its rows, anything else is refused.
bool TakeFile(sqlite3* db, std::string* error) {
  std::string mode, id, tables, check;
  // Held from the first write until the connection closes: a second process
  // cannot use the file meanwhile.
  if (sqlite3_exec(db, "PRAGMA locking_mode=EXCLUSIVE; PRAGMA page_size=1024", nullptr, nullptr,
                   nullptr) != SQLITE_OK ||
      !QueryText(db, "PRAGMA journal_mode=WAL", &mode) ||
      !QueryText(db, "PRAGMA application_id", &id) ||
      !QueryText(db, "SELECT count(*) FROM sqlite_master", &tables)) {
    *error = sqlite3_errmsg(db);
    return false;
  }
  if (mode != "wal") {
    *error = "write-ahead log not available (journal mode " + mode + ")";
    return false;
  }
  if (id != std::to_string(kApplicationId) && tables != "0") {
    *error = "the file holds something else than messages";
    return false;
  }
  const std::string setup = std::string("PRAGMA synchronous=NORMAL; BEGIN EXCLUSIVE;") + kSchema +
                            "PRAGMA application_id=" + std::to_string(kApplicationId) +
                            "; PRAGMA user_version=" + std::to_string(kLayout) + "; COMMIT;";
  if (sqlite3_exec(db, setup.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    *error = sqlite3_errmsg(db);
    return false;
  }
  if (!QueryText(db, "PRAGMA quick_check", &check) || check != "ok") {
    *error = check.empty() ? sqlite3_errmsg(db) : "damaged (" + check + ")";
    return false;
  }
  return true;
}

}  // namespace

void OAPSQLiteMessageStore::StatementDeleter::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

std::shared_ptr<OAPSQLiteMessageStore> OAPSQLiteMessageStore::Open(const std::string& path,
                                                                   QmLogInterface* logger,
                                                                   std::string* error) {
  sqlite3* db = nullptr;
  // The store's lock serialises every use of the connection.
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    *error = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
    sqlite3_close(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  std::shared_ptr<OAPSQLiteMessageStore> store(new OAPSQLiteMessageStore(db, path, logger));
  if (!TakeFile(db, error) || !store->Prepare(error)) return nullptr;
  sqlite3_exec(db, kLogSizeLimit, nullptr, nullptr, nullptr);
  sqlite3_wal_hook(db, &OAPSQLiteMessageStore::OnCommit, store.get());
  return store;
}

OAPSQLiteMessageStore::OAPSQLiteMessageStore(sqlite3* db, const std::string& path,
                                             QmLogInterface* logger)
    : m_db(db), m_path(path), m_logger(logger) {}

OAPSQLiteMessageStore::~OAPSQLiteMessageStore() {
  for (Statement* statement :
       {&m_insert, &m_update, &m_select, &m_delete, &m_range, &m_begin, &m_commit}) {
    statement->reset();
  }
  sqlite3_close(m_db);
}

bool OAPSQLiteMessageStore::Prepare(std::string* error) {
  const std::pair<Statement*, const char*> statements[] = {
      {&m_insert, kInsert}, {&m_update, kUpdate}, {&m_select, kSelect}, {&m_delete, kDelete},
      {&m_range, kRange},   {&m_begin, "BEGIN"},  {&m_commit, "COMMIT"}};
  for (const auto& entry : statements) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(m_db, entry.second, -1, SQLITE_PREPARE_PERSISTENT, &statement,
                           nullptr) != SQLITE_OK) {
      *error = sqlite3_errmsg(m_db);
      return false;
    }
    entry.first->reset(statement);
  }
  sqlite3_stmt* ages = nullptr;
  if (sqlite3_prepare_v2(m_db, kAges, -1, &ages, nullptr) != SQLITE_OK) {
    *error = sqlite3_errmsg(m_db);
    return false;
  }
  int rc = SQLITE_OK;
  while ((rc = sqlite3_step(ages)) == SQLITE_ROW) {
    m_age.emplace_back(sqlite3_column_int64(ages, 0),
                       static_cast<uint32_t>(sqlite3_column_int64(ages, 1)));
  }
  sqlite3_finalize(ages);
  if (rc != SQLITE_DONE) {
    *error = sqlite3_errmsg(m_db);
    return false;
  }
  std::sort(m_age.begin(), m_age.end());
  m_rows = m_age.size();
  return true;
}

int OAPSQLiteMessageStore::OnCommit(void* self, sqlite3* db, const char* /*name*/, int frames) {
  static_cast<OAPSQLiteMessageStore*>(self)->m_logFrames = frames;
  if (frames >= kLogFramesLimit) {
    sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  }
  return SQLITE_OK;
}

void OAPSQLiteMessageStore::LogFailure(const std::string& what) {
  QM_LOG(m_logger, Error, kSource,
         QmstringFormat("Message store '%s': %s: %s", m_path.c_str(), what.c_str(),
                        sqlite3_errmsg(m_db)));
}

bool OAPSQLiteMessageStore::Run(sqlite3_stmt* statement) {
  Use use(statement);
  return sqlite3_step(statement) == SQLITE_DONE;
}

void OAPSQLiteMessageStore::Remember(const Message& message) {
  Unremember(message.tracking);
  m_recent.push_front(message);
  m_recentByNumber[message.tracking] = m_recent.begin();
  if (m_recent.size() > kRecentMessages) {
    m_recentByNumber.erase(m_recent.back().tracking);
    m_recent.pop_back();
  }
}

void OAPSQLiteMessageStore::Unremember(uint32_t tracking) {
  auto found = m_recentByNumber.find(tracking);
  if (found == m_recentByNumber.end()) return;
  m_recent.erase(found->second);
  m_recentByNumber.erase(found);
}

bool OAPSQLiteMessageStore::Load(uint32_t tracking, Message* out) {
  auto recent = m_recentByNumber.find(tracking);
  if (recent != m_recentByNumber.end()) {
    m_recent.splice(m_recent.begin(), m_recent, recent->second);
    *out = *recent->second;
    return true;
  }
  sqlite3_stmt* select = m_select.get();
  Use use(select);
  sqlite3_bind_int64(select, 1, tracking);
  const int rc = sqlite3_step(select);
  if (rc != SQLITE_ROW) {
    if (rc != SQLITE_DONE) LogFailure(QmstringFormat("cannot read message %lu", 0ul + tracking));
    return false;
  }
  out->tracking = tracking;
  out->address = Column(select, 0);
  out->state = sqlite3_column_int(select, 1);
  out->closed = sqlite3_column_int(select, 2) != 0;
  out->bodyOf = static_cast<uint32_t>(sqlite3_column_int64(select, 5));
  out->created = sqlite3_column_int64(select, 6);
  const std::string body = Column(select, 4);
  auto decoded = std::make_shared<MessageBody>();
  if (!OAPMessageCodec::DecodeTexts(Column(select, 3), &out->responses) ||
      (!body.empty() && !OAPMessageCodec::DecodeBody(body, decoded.get()))) {
    QM_LOG(m_logger, Error, kSource,
           QmstringFormat("Message store '%s': message %lu is damaged; it is left out",
                          m_path.c_str(), 0ul + tracking));
    return false;
  }
  out->body = body.empty() ? nullptr : std::move(decoded);
  Remember(*out);
  return true;
}

bool OAPSQLiteMessageStore::Write(const Message& message, bool insert) {
  sqlite3_stmt* statement = insert ? m_insert.get() : m_update.get();
  Use use(statement);
  sqlite3_bind_int64(statement, 1, message.tracking);
  sqlite3_bind_text(statement, 2, message.address.data(), static_cast<int>(message.address.size()),
                    SQLITE_TRANSIENT);
  sqlite3_bind_int(statement, 3, message.state);
  sqlite3_bind_int(statement, 4, message.closed ? 1 : 0);
  BindBlob(statement, 5, OAPMessageCodec::EncodeTexts(message.responses));
  if (message.body != nullptr) {
    BindBlob(statement, 6, OAPMessageCodec::EncodeBody(*message.body));
  } else {
    sqlite3_bind_null(statement, 6);
  }
  sqlite3_bind_int64(statement, 7, message.bodyOf);
  sqlite3_bind_int64(statement, 8, message.created);
  if (sqlite3_step(statement) != SQLITE_DONE) {
    Unremember(message.tracking);
    LogFailure(QmstringFormat("cannot write message %lu; it is kept in memory only",
                              0ul + message.tracking));
    return false;
  }
  if (insert) {
    ++m_rows;
    m_age.emplace_back(message.created, message.tracking);
  }
  Remember(message);
  return true;
}

bool OAPSQLiteMessageStore::Delete(uint32_t tracking, int64_t created) {
  Unremember(tracking);
  sqlite3_bind_int64(m_delete.get(), 1, tracking);
  sqlite3_bind_int64(m_delete.get(), 2, created);
  if (!Run(m_delete.get())) {
    LogFailure(QmstringFormat("cannot remove message %lu", 0ul + tracking));
    return false;
  }
  if (sqlite3_changes(m_db) == 0) return false;
  m_rows -= std::min<size_t>(m_rows, 1);
  return true;
}

bool OAPSQLiteMessageStore::IsUnsaved(uint32_t tracking) {
  Message message;
  return m_unsaved.Find(tracking, &message);
}

bool OAPSQLiteMessageStore::Change(uint32_t tracking, const std::function<bool(Message&)>& change) {
  Message message;
  if (!Load(tracking, &message) || !change(message)) return false;
  // The row that could not be changed stays behind the message kept in memory.
  if (!Write(message, false)) m_unsaved.Add(message);
  return true;
}

bool OAPSQLiteMessageStore::Add(const Message& message) {
  std::lock_guard<std::mutex> guard(m_mutex);
  Message known;
  if (m_unsaved.Find(message.tracking, &known) || Load(message.tracking, &known)) return false;
  if (message.state == kPending || !Write(message, true)) return m_unsaved.Add(message);
  return true;
}

bool OAPSQLiteMessageStore::SetState(uint32_t tracking, int32_t state) {
  std::lock_guard<std::mutex> guard(m_mutex);
  Message message;
  if (m_unsaved.Find(tracking, &message)) {
    m_unsaved.SetState(tracking, state);
    // A reserved message that gets past its reservation goes to the file.
    if (message.state == kPending && state != kPending) {
      message.state = state;
      if (Write(message, true)) m_unsaved.Forget(tracking);
    }
    return true;
  }
  return Change(tracking, [state](Message& m) {
    m.state = state;
    return true;
  });
}

bool OAPSQLiteMessageStore::AddResponse(uint32_t tracking, const std::string& reply, bool close,
                                        const MessageBody* body) {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (IsUnsaved(tracking)) return m_unsaved.AddResponse(tracking, reply, close, body);
  return Change(tracking, [&](Message& m) {
    if (m.closed) return false;
    m.responses.push_back(reply);
    m.closed = close;
    if (body != nullptr) m.body = std::make_shared<const MessageBody>(*body);
    return true;
  });
}

bool OAPSQLiteMessageStore::SetBody(uint32_t tracking, const MessageBody& body) {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (IsUnsaved(tracking)) return m_unsaved.SetBody(tracking, body);
  return Change(tracking, [&](Message& m) {
    m.body = std::make_shared<const MessageBody>(body);
    return true;
  });
}

bool OAPSQLiteMessageStore::TakeResponses(uint32_t tracking, std::list<std::string>* replies) {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (IsUnsaved(tracking)) return m_unsaved.TakeResponses(tracking, replies);
  replies->clear();
  Message message;
  if (!Load(tracking, &message)) return false;
  replies->swap(message.responses);
  // Nothing to write when nothing was waiting.
  if (!replies->empty() && !Write(message, false)) m_unsaved.Add(message);
  return true;
}

bool OAPSQLiteMessageStore::Find(uint32_t tracking, Message* out) {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_unsaved.Find(tracking, out) || Load(tracking, out);
}

void OAPSQLiteMessageStore::Forget(uint32_t tracking) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_unsaved.Forget(tracking);
  Delete(tracking, -1);
}

bool OAPSQLiteMessageStore::AnyInRange(uint32_t first, uint32_t last) {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (m_unsaved.AnyInRange(first, last)) return true;
  sqlite3_stmt* range = m_range.get();
  Use use(range);
  sqlite3_bind_int64(range, 1, first);
  sqlite3_bind_int64(range, 2, last);
  return sqlite3_step(range) == SQLITE_ROW;
}

size_t OAPSQLiteMessageStore::Expire(int64_t createdBefore, size_t keep, size_t batch) {
  std::lock_guard<std::mutex> guard(m_mutex);
  size_t removed = m_unsaved.Expire(createdBefore, std::numeric_limits<size_t>::max(), batch);
  // One transaction for the batch.
  if (removed < batch && !m_age.empty() && !Run(m_begin.get())) {
    LogFailure("cannot remove expired messages");
    return removed;
  }
  while (removed < batch && !m_age.empty() &&
         (m_age.front().first < createdBefore || m_rows > keep)) {
    const std::pair<int64_t, uint32_t> oldest = m_age.front();
    m_age.pop_front();
    removed += Delete(oldest.second, oldest.first) ? 1 : 0;
  }
  if (sqlite3_get_autocommit(m_db) == 0 && !Run(m_commit.get())) {
    LogFailure("cannot remove expired messages");
  }
  if (m_logFrames > 0 && sqlite3_wal_checkpoint_v2(m_db, nullptr, SQLITE_CHECKPOINT_PASSIVE,
                                                   nullptr, nullptr) == SQLITE_OK) {
    m_logFrames = 0;
  }
  return removed;
}

size_t OAPSQLiteMessageStore::Count() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_rows + m_unsaved.Count();
}
