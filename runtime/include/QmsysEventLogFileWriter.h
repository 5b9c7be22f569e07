#ifndef QM_RUNTIME_QMSYSEVENTLOGFILEWRITER_H
#define QM_RUNTIME_QMSYSEVENTLOGFILEWRITER_H

#include <string>

#include "QmsysEventLogWriterInterface.h"

// Writes log lines to a text file that rotates by size. Each line opens,
// appends and closes the file under a per-line lock file ("<file>.lock"),
// so threads and processes may share one log and other tools may rotate or
// read it at any time. Lines read "MM/DD/YYYY hh:mm:ss <process> [LEVEL]
// <message>"; with one file per process the process name is left out.
// Configure it before sharing it; once configured any number of threads
// may write through one writer. A line that cannot be stored in full
// (lock, open, write, flush or close failing) returns false and is reported
// to the system log.
class QmsysEventLogFileWriter : public QmsysEventLogWriterInterface {
 public:
  static const unsigned int kDefaultBytesPerFile = 204800;
  static const unsigned int kMinBytesPerFile = 1024;
  static const unsigned int kDefaultNumFiles = 20;
  static const unsigned int kMaxNumFiles = 1000;

  QmsysEventLogFileWriter();
  ~QmsysEventLogFileWriter() override;

  // Keys, without regard to case: "numFiles", "bytesPerFiles", "filePath",
  // "autoAppend", "perProcessFile"; others are ignored (false). A size
  // setting of 0 is ignored; one that is not a number within bounds is
  // replaced by its default with a line in the system log (false).
  bool setParameter(const std::string& key, const std::string& value) override;
  bool operator()(const std::string& processName, LogLevel level, const std::string& message,
                  int line, const char* file, time_t time) override;
  // A path was set and both size settings are non-zero.
  bool isInitialized() override;

  // 0 is ignored (false); above kMaxNumFiles means the default (false).
  bool setNumOfFiles(unsigned int files);
  // 0 is ignored (false); below kMinBytesPerFile means the default (false).
  bool setNumBytesPerFile(unsigned int bytes);
  // Creates the file, and the directories above it, when missing; false
  // when it cannot be opened for appending.
  bool setFilePath(const std::string& path);
  void setAutoAppend(bool autoAppend) { m_autoAppend = autoAppend; }
  void setPerProcessFile(bool perProcess) { m_perProcessFile = perProcess; }

  std::string GetHeader(LogLevel level, const std::string& processName, time_t time);
  // Rotates `fileName` when it has reached the size limit: name.1 is the
  // newest archive, name.<numFiles> the oldest.
  void Archive(const std::string& fileName);
  // The file a line of `processName` goes to.
  std::string getTargetFile(const std::string& processName) const;

 private:
  void appendLine(const std::string& target, const std::string& text);
  bool needsLineFeed(const std::string& message) const;

  std::string m_directory;
  std::string m_filePath;
  bool m_perProcessFile = true;
  bool m_autoAppend = true;
  unsigned int m_bytesPerFile = 0;
  unsigned int m_numFiles = 0;
  bool m_initialized = false;
};

#endif
