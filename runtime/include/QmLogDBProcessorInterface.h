#ifndef QM_RUNTIME_QMLOGDBPROCESSORINTERFACE_H
#define QM_RUNTIME_QMLOGDBPROCESSORINTERFACE_H

#include <ctime>
#include <string>
#include <vector>

#include "QmconLock.h"
#include "Qmobject.h"

// Database-independent part of the log database: one table per module,
// the SQL text used to read rows back with filters, sorting and paging,
// and the result rows. A concrete processor supplies the database calls
// and serialises them with the lock kept here, so one processor may be
// used by any number of threads.
class QmLogDBProcessorInterface : public Qmobject {
 public:
  // One stored log line.
  class LogEntry {
   public:
    time_t time = 0;
    std::string module;
    int level = 0;
    std::string message;
    int line = 0;
    std::string srcfile;

    // Text of a column by name: "module", "timestamp", "level", "message",
    // "line"; empty for any other name.
    std::string operator[](const std::string& column) const;
  };

  // The rows of one select, in result order. Owns its entries.
  class EntrySet {
   public:
    void add(const LogEntry& entry) { m_entries.push_back(entry); }
    size_t size() const { return m_entries.size(); }
    bool empty() const { return m_entries.empty(); }
    const LogEntry& operator[](size_t index) const { return m_entries[index]; }
    std::vector<LogEntry>::const_iterator begin() const { return m_entries.begin(); }
    std::vector<LogEntry>::const_iterator end() const { return m_entries.end(); }
    void free() { m_entries.clear(); }

   private:
    std::vector<LogEntry> m_entries;
  };

  // Filters, ordering and paging for reading rows. Empty lists, empty
  // patterns, a level of 0 and a start time of 0 select nothing out.
  struct ReadLogFilter {
    std::vector<std::string> modules;
    std::vector<int> levels;
    std::string messagePattern;  // SQL LIKE pattern, no single quotes
    int level = 0;
    long long startTime = 0;  // seconds since the epoch
    std::string datePattern;  // LIKE pattern over "MM/DD/YYYY hh:mm:ss"
    bool sortByTimeDesc = false;
    bool sortByModule = false;
    bool sortByLevel = false;
    int limit = 0;  // below 1: no limit
    int offset = 0;
  };

  ~QmLogDBProcessorInterface() override;

  virtual bool openDatabase() = 0;
  virtual bool initializeDatabase() = 0;
  virtual bool closeDatabase() = 0;
  virtual void interruptDatabase() = 0;
  virtual bool isDatabaseOpened() = 0;
  virtual bool isDatabaseInitialized() = 0;
  virtual bool isTableExists(const std::string& table) = 0;

  virtual bool writeLogRecord(const std::string& module, const std::string& message, time_t time,
                              int level, const std::string& file, int line) = 0;
  virtual bool cleanModuleTable(const std::string& module) = 0;
  virtual bool cleanAllModulesTable() = 0;
  virtual bool readLogRecord(EntrySet& entries, const std::string& module,
                             const ReadLogFilter& filter) = 0;
  virtual bool readLogRecord(EntrySet& entries, const std::string& module,
                             const std::string& condition) = 0;
  // Pages of `pageSize` rows among the module's rows that match the level
  // (when above 0), the message pattern and the date pattern (when not
  // empty); -1 on failure.
  virtual int getNumberOfPages(const std::string& module, int pageSize, int level,
                               const std::string& messagePattern,
                               const std::string& datePattern) = 0;

  // The last error kept by any operation.
  int getDBError() const;
  std::string getDBString() const;
  void clearDBError();

  // Module name with every ".", " " and "-" replaced by "_".
  static std::string convModuleName2TableName(const std::string& module);
  // The WHERE / ORDER BY / LIMIT text for a filter.
  static std::string getSQLCondition(const ReadLogFilter& filter);
  // The row-counting select behind getNumberOfPages.
  static std::string getPageCountSQL(const std::string& table, int level,
                                     const std::string& messagePattern,
                                     const std::string& datePattern);

 protected:
  void setDBError(int code, const std::string& text);
  // The processor's lock (recursive): held by every database operation.
  QmconLock& dbLock() const { return m_lock; }

 private:
  mutable QmconLock m_lock;
  int m_lastErrorCode = 0;
  std::string m_lastErrorText;
};

#endif
