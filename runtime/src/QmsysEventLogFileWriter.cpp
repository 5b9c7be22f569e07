#include "QmsysEventLogFileWriter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "LockFile.h"
#include "QmString.h"
#include "QmconFunctions.h"
#include "QmioException.h"
#include "QmioFile.h"
#include "QmsysSystemLog.h"

namespace {

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

unsigned int ParseUnsigned(const std::string& value) {
  return static_cast<unsigned int>(std::strtoul(value.c_str(), nullptr, 10));
}

std::string ArchiveName(const std::string& fileName, unsigned int index) {
  return QmstringFormat("%s.%u", fileName.c_str(), index);
}

// Closes a stdio stream when it goes out of scope.
struct StreamCloser {
  void operator()(FILE* stream) const { fclose(stream); }
};

}  // namespace

QmsysEventLogFileWriter::QmsysEventLogFileWriter() = default;

QmsysEventLogFileWriter::~QmsysEventLogFileWriter() = default;

bool QmsysEventLogFileWriter::setParameter(const std::string& key, const std::string& value) {
  if (QmstringEqualsNoCase(key, "numFiles")) return setNumOfFiles(ParseUnsigned(value));
  if (QmstringEqualsNoCase(key, "bytesPerFiles")) return setNumBytesPerFile(ParseUnsigned(value));
  if (QmstringEqualsNoCase(key, "filePath")) return setFilePath(value);
  if (QmstringEqualsNoCase(key, "autoAppend")) {
    m_autoAppend = ParseUnsigned(value) != 0;
    return true;
  }
  if (QmstringEqualsNoCase(key, "perProcessFile")) {
    m_perProcessFile = ParseUnsigned(value) != 0;
    return true;
  }
  return false;
}

bool QmsysEventLogFileWriter::setNumBytesPerFile(unsigned int bytes) {
  if (bytes == 0) return false;
  m_bytesPerFile = bytes;
  return true;
}

bool QmsysEventLogFileWriter::setNumOfFiles(unsigned int files) {
  if (files == 0) return false;
  m_numFiles = files;
  return true;
}

bool QmsysEventLogFileWriter::setFilePath(const std::string& path) {
  try {
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
  try {
    const std::string target = getTargetFile(processName);
    LockFile lock(target + ".lock");
    Archive(target);
    appendLine(target, GetHeader(level, processName, time), message);
    return true;
  } catch (const QmException& e) {
    QmsysSystemLog::Write("QmsysEventLogFileWriter::DoWork", QmsysSystemLog::CATEGORY_ERROR, "%s",
                          e.ToString().c_str());
  } catch (const std::exception& e) {
    const char* text = e.what();
    QmsysSystemLog::Write("QmsysEventLogFileWriter::DoWork", QmsysSystemLog::CATEGORY_ERROR, "%s",
                          (text != nullptr && *text != '\0') ? text : "Unknown Error");
  }
  return false;
}

void QmsysEventLogFileWriter::appendLine(const std::string& target, const std::string& header,
                                         const std::string& message) {
  std::unique_ptr<FILE, StreamCloser> stream(fopen(target.c_str(), "a+"));
  if (!stream) QMIO_THROW(target, "Can Not Open Log File");
  std::string text = header + message;
  if (m_autoAppend && needsLineFeed(message)) text += "\n";
  if (fwrite(text.data(), 1, text.size(), stream.get()) != text.size()) {
    QMIO_THROW(target, "Can Not Write Log File");
  }
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

  {
    std::unique_ptr<FILE, StreamCloser> note(fopen(m_filePath.c_str(), "a"));
    if (!note) {
      QmsysSystemLog::Write("QmsysEventLog::Archive", QmsysSystemLog::CATEGORY_ERROR,
                            "Can Not Open Log File");
      return;
    }
    const time_t now = ::time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char stamp[64];
    strftime(stamp, sizeof(stamp), "%m/%d/%Y %H:%M:%S", &local);
    fprintf(note.get(), "%s Archiving %s\n", stamp, fileName.c_str());
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
    QmsysSystemLog::Write("QmsysEventLog::Archive", QmsysSystemLog::CATEGORY_ERROR,
                          "Can not rename log file from '%s' to '%s'", fileName.c_str(),
                          newest.c_str());
  }
}
