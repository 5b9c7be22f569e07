#include "QmLogDBProcessorInterface.h"

#include "QmString.h"
#include "QmconCriticalSection.h"

namespace {

// Collects conditions, joining them with "AND ".
class ConditionList {
 public:
  void add(const std::string& condition) {
    m_text += m_empty ? condition : "AND " + condition;
    m_empty = false;
  }
  // A condition that carries its own joining text.
  void addRaw(const std::string& first, const std::string& later) {
    m_text += m_empty ? first : later;
    m_empty = false;
  }
  bool empty() const { return m_empty; }
  const std::string& text() const { return m_text; }

 private:
  std::string m_text;
  bool m_empty = true;
};

std::string QuotedList(const std::vector<std::string>& names) {
  std::string text;
  for (size_t i = 0; i < names.size(); ++i) text += (i == 0 ? "'" : ", '") + names[i] + "'";
  return text;
}

std::string NumberList(const std::vector<int>& numbers) {
  std::string text;
  for (size_t i = 0; i < numbers.size(); ++i) {
    if (i > 0) text += ", ";
    text += std::to_string(numbers[i]);
  }
  return text;
}

std::string OrderClause(const QmLogDBProcessorInterface::ReadLogFilter& filter) {
  std::vector<std::string> keys;
  if (filter.sortByTimeDesc) keys.push_back("timestamp DESC");
  if (filter.sortByModule) keys.push_back("module");
  if (filter.sortByLevel) keys.push_back("level");
  if (keys.empty()) return std::string();
  std::string text = "ORDER BY ";
  for (size_t i = 0; i < keys.size(); ++i) text += (i == 0 ? "" : ", ") + keys[i];
  return text;
}

}  // namespace

std::string QmLogDBProcessorInterface::LogEntry::operator[](const std::string& column) const {
  if (column == "module") return module;
  if (column == "timestamp") return std::to_string(static_cast<long long>(time));
  if (column == "level") return std::to_string(level);
  if (column == "message") return message;
  if (column == "line") return std::to_string(line);
  return std::string();
}

QmLogDBProcessorInterface::~QmLogDBProcessorInterface() = default;

int QmLogDBProcessorInterface::getDBError() const {
  QmconCriticalSection guard(&m_lock, true, true, false);
  return m_lastErrorCode;
}

std::string QmLogDBProcessorInterface::getDBString() const {
  QmconCriticalSection guard(&m_lock, true, true, false);
  return m_lastErrorText;
}

void QmLogDBProcessorInterface::clearDBError() {
  setDBError(0, std::string());
}

void QmLogDBProcessorInterface::setDBError(int code, const std::string& text) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  m_lastErrorCode = code;
  m_lastErrorText = text;
}

std::string QmLogDBProcessorInterface::convModuleName2TableName(const std::string& module) {
  std::string table = module;
  for (char& c : table) {
    if (c == '.' || c == ' ' || c == '-') c = '_';
  }
  return table;
}

std::string QmLogDBProcessorInterface::getSQLCondition(const ReadLogFilter& filter) {
  ConditionList conditions;
  if (!filter.modules.empty()) conditions.add("module IN (" + QuotedList(filter.modules) + ") ");
  if (!filter.levels.empty()) conditions.add("level IN (" + NumberList(filter.levels) + ") ");
  if (!filter.messagePattern.empty()) {
    conditions.add("message LIKE '" + filter.messagePattern + "' ");
  }
  if (filter.level > 0) conditions.add(QmstringFormat("level = %d ", filter.level));
  if (filter.startTime > 0) {
    conditions.addRaw(QmstringFormat(" timestamp>=%lld ", filter.startTime),
                      QmstringFormat(" AND timestamp>=%lld ", filter.startTime));
  }
  if (!filter.datePattern.empty()) conditions.add("tempcol LIKE '" + filter.datePattern + "' ");

  std::string text = conditions.empty() ? std::string() : "WHERE " + conditions.text();
  text += OrderClause(filter);
  text += QmstringFormat(" LIMIT %d OFFSET %d ", filter.limit < 1 ? -1 : filter.limit,
                         filter.offset < 0 ? 0 : filter.offset);
  return text;
}

std::string QmLogDBProcessorInterface::getPageCountSQL(const std::string& table, int level,
                                                       const std::string& messagePattern,
                                                       const std::string& datePattern) {
  std::string sql =
      "SELECT  strftime('%m/%d/%Y %H:%M:%S',timestamp,'unixepoch','localtime') entry_time, "
      "message, level,'4','5',COUNT(*) as records,'7' FROM ";
  sql += table + " ";
  bool first = true;
  if (level > 0) {
    sql += "WHERE level=" + std::to_string(level) + " ";
    first = false;
  }
  if (!messagePattern.empty()) {
    sql += (first ? "WHERE message LIKE '" : "AND message LIKE '") + messagePattern + "' ";
    first = false;
  }
  if (!datePattern.empty()) {
    sql += (first ? "WHERE entry_time LIKE '" : "AND entry_time LIKE '") + datePattern + "' ";
  }
  return sql + ";";
}
