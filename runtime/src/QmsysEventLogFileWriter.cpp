#include "QmsysEventLogFileWriter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "LockFile.h"
#include "QmString.h"
#include "QmconFunctions.h"
#include "QmioDirectory.h"
#include "QmioException.h"
#include "QmioFile.h"
#include "QmsysSystemLog.h"

namespace {

const char* const kSettingSource = "QmsysEventLogFileWriter::setParameter";

bool FileExists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

bool FileSize(const std::string& path, off_t* size) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return false;
  *size = info.st_size;
  return true;
}

// A whole decimal number that fits an unsigned int, or UINT_MAX as the
// mark of a value out of every range (negative, too large, not a number).
unsigned int ParseSize(const std::string& value) {
  errno = 0;
  char* end = nullptr;
  const long long number = std::strtoll(value.c_str(), &end, 10);
  const bool whole = end != value.c_str() && *end == '\0' && errno == 0;
  if (!whole || number < 0 || number >= static_cast<long long>(UINT_MAX)) return UINT_MAX;
  return static_cast<unsigned int>(number);
}

std::string ArchiveName(const std::string& fileName, unsigned int index) {
  return QmstringFormat("%s.%u", fileName.c_str(), index);
}

void ReportFallback(const char* setting, unsigned int fallback) {
  QmsysSystemLog::Write(kSettingSource, QmsysSystemLog::CATEGORY_WARNING,
                        "%s is out of range; using %u", setting, fallback);
}

}  // namespace

QmsysEventLogFileWriter::QmsysEventLogFileWriter() = default;

QmsysEventLogFileWriter::~QmsysEventLogFileWriter() = default;

bool QmsysEventLogFileWriter::setParameter(const std::string& key, const std::string& value) {
  if (QmstringEqualsNoCase(key, "numFiles")) return setNumOfFiles(ParseSize(value));
  if (QmstringEqualsNoCase(key, "bytesPerFiles")) return setNumBytesPerFile(ParseSize(value));
  if (QmstringEqualsNoCase(key, "filePath")) return setFilePath(value);
  if (QmstringEqualsNoCase(key, "autoAppend")) {
    m_autoAppend = std::strtoul(value.c_str(), nullptr, 10) != 0;
    return true;
  }
  if (QmstringEqualsNoCase(key, "perProcessFile")) {
    m_perProcessFile = std::strtoul(value.c_str(), nullptr, 10) != 0;
    return true;
  }
  return false;
}

bool QmsysEventLogFileWriter::setNumBytesPerFile(unsigned int bytes) {
  if (bytes == 0) return false;
  if (bytes < kMinBytesPerFile || bytes == UINT_MAX) {
    ReportFallback("bytesPerFiles (at least 1024)", kDefaultBytesPerFile);
    m_bytesPerFile = kDefaultBytesPerFile;
    return false;
  }
  m_bytesPerFile = bytes;
  return true;
}

bool QmsysEventLogFileWriter::setNumOfFiles(unsigned int files) {
  if (files == 0) return false;
  if (files > kMaxNumFiles) {
    ReportFallback("numFiles (1 to 1000)", kDefaultNumFiles);
    m_numFiles = kDefaultNumFiles;
    return false;
  }
  m_numFiles = files;
  return true;
}

bool QmsysEventLogFileWriter::setFilePath(const std::string& path) {
  try {
    if (!QmioDirectory::Create(QmioDirectory::Of(path))) {
      QMIO_THROW(QmioDirectory::Of(path), "Can Not Create Log Directory");
    }
    QmioFile file(path);
    file.Open("a+");
    file.Close();
  } catch (const QmioException& e) {
    QmsysSystemLog::Write("QmsysEventLogInterface::setFilePath", QmsysSystemLog::CATEGORY_ERROR,
                          "%s", e.ToString().c_str());
    return false;
  }
  m_filePath = path;
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) slash = path.rfind('\\');
  m_directory = slash != std::string::npos ? path.substr(0, slash) : "./";
  m_initialized = true;
  return true;
}

bool QmsysEventLogFileWriter::isInitialized() {
  return m_initialized && m_bytesPerFile != 0 && m_numFiles != 0 && !m_filePath.empty();
}

std::string QmsysEventLogFileWriter::getTargetFile(const std::string& processName) const {
  if (!m_perProcessFile) return m_filePath;
  return m_directory + "/" + QmstringReplaceAll(processName, " ", "_") + ".txt";
}

std::string QmsysEventLogFileWriter::GetHeader(LogLevel level, const std::string& processName,
                                               time_t time) {
  std::string header;
  getTimeStamp(time, &header);
  header += " ";
  if (!m_perProcessFile) header += processName + " ";
  return header + getLevelTag(level) + " ";
}

bool QmsysEventLogFileWriter::operator()(const std::string& processName, LogLevel level,
                                         const std::string& message, int /*line*/,
                                         const char* /*file*/, time_t time) {
  if (!isInitialized()) return false;
  const char* const source = "QmsysEventLogFileWriter::DoWork";
  try {
    const std::string target = getTargetFile(processName);
    std::string text = GetHeader(level, processName, time) + message;
    if (m_autoAppend && needsLineFeed(message)) text += "\n";
    LockFile lock(target + ".lock");
    Archive(target);
    appendLine(target, text);
    return true;
  } catch (const QmException& e) {
    QmsysSystemLog::Write(source, QmsysSystemLog::CATEGORY_ERROR, "%s", e.ToString().c_str());
  } catch (const std::exception& e) {
    const char* text = e.what();
    QmsysSystemLog::Write(source, QmsysSystemLog::CATEGORY_ERROR, "%s",
                          (text != nullptr && *text != '\0') ? text : "Unknown Error");
  } catch (...) {
    QmsysSystemLog::Write(source, QmsysSystemLog::CATEGORY_ERROR, "Unknown Error");
  }
  return false;
}

// The whole line goes out in one write when the stream is flushed, so a
// writer that dies half-way leaves no torn line behind.
void QmsysEventLogFileWriter::appendLine(const std::string& target, const std::string& text) {
  QmioFile file(target);
  file.Open("a+");
  file.Write(text);
  file.Flush();
  file.Close();
}

// Looks back over the message's trailing whitespace for a line feed.
bool QmsysEventLogFileWriter::needsLineFeed(const std::string& message) const {
  for (auto it = message.rbegin(); it != message.rend(); ++it) {
    if (*it == '\n') return false;
    if (!std::isspace(static_cast<unsigned char>(*it))) return true;
  }
  return true;
}

void QmsysEventLogFileWriter::Archive(const std::string& fileName) {
  off_t size = 0;
  if (!FileSize(fileName, &size) || size < static_cast<off_t>(m_bytesPerFile)) return;

  const char* const source = "QmsysEventLog::Archive";
  {
    QmioFile note(m_filePath);
    try {
      note.Open("a");
    } catch (const QmioException&) {
      QmsysSystemLog::Write(source, QmsysSystemLog::CATEGORY_ERROR, "Can Not Open Log File");
      return;
    }
    const time_t now = ::time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char stamp[64];
    strftime(stamp, sizeof(stamp), "%m/%d/%Y %H:%M:%S", &local);
    // The rotation goes ahead without its note: it frees the space a full
    // disk lacks.
    try {
      note.Write(QmstringFormat("%s Archiving %s\n", stamp, fileName.c_str()));
      note.Close();
    } catch (const QmioException& e) {
      QmsysSystemLog::Write(source, QmsysSystemLog::CATEGORY_ERROR, "%s", e.ToString().c_str());
    }
  }

  const std::string oldest = ArchiveName(fileName, m_numFiles);
  if (FileExists(oldest)) unlink(oldest.c_str());
  for (unsigned int i = m_numFiles - 1; i >= 1; --i) {
    const std::string from = ArchiveName(fileName, i);
    if (FileExists(from) && rename(from.c_str(), ArchiveName(fileName, i + 1).c_str()) != 0) {
      unlink(from.c_str());
    }
  }
  const std::string newest = ArchiveName(fileName, 1);
  if (rename(fileName.c_str(), newest.c_str()) == 0) return;
  unlink(newest.c_str());
  if (rename(fileName.c_str(), newest.c_str()) != 0) {
    QmsysSystemLog::Write(source, QmsysSystemLog::CATEGORY_ERROR,
                          "Can not rename log file from '%s' to '%s'", fileName.c_str(),
                          newest.c_str());
  }
}
