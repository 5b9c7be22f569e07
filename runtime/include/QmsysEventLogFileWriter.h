#ifndef QM_RUNTIME_QMSYSEVENTLOGFILEWRITER_H
#define QM_RUNTIME_QMSYSEVENTLOGFILEWRITER_H

#include <string>

#include "QmsysEventLogWriterInterface.h"

// Writes log lines to a text file that rotates by size. Each line opens,
// appends and closes the file under a per-line lock file ("<file>.lock"),
// so threads and processes may share one log and other tools may rotate or
// read it at any time. Lines read "MM/DD/YYYY hh:mm:ss <process> [LEVEL]
// <message>"; with one file per process the process name is left out.
class QmsysEventLogFileWriter : public QmsysEventLogWriterInterface {
 public:
  QmsysEventLogFileWriter();
  ~QmsysEventLogFileWriter() override;

  // Keys, without regard to case: "numFiles", "bytesPerFiles", "filePath",
  // "autoAppend", "perProcessFile"; others are ignored (false).
  bool setParameter(const std::string& key, const std::string& value) override;
  bool operator()(const std::string& processName, LogLevel level, const std::string& message,
                  int line, const char* file, time_t time) override;
  // A path was set and both size settings are non-zero.
  bool isInitialized() override;

  bool setNumBytesPerFile(unsigned int bytes);  // 0 is ignored (false)
  bool setNumOfFiles(unsigned int files);       // 0 is ignored (false)
  // Creates the file when missing; false when it cannot be opened.
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
  void appendLine(const std::string& target, const std::string& header, const std::string& message);
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
