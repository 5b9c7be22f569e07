#ifndef QM_RUNTIME_QMINIREADERWRITEREX_H
#define QM_RUNTIME_QMINIREADERWRITEREX_H

#include <memory>
#include <string>

#include "IniReaderWriter.h"

class QmioFile;

// An INI document that keeps its file open, and locked once lock() is called,
// between reading and writing, so that a read-modify-write of a file shared
// with other processes is atomic. Typical use: open(false), lock(false),
// read(), change, write(), close(). Owns the open file; the destructor unlocks
// and closes it.
class QmIniReaderWriterEx : public IniReaderWriter {
 public:
  QmIniReaderWriterEx(const std::string& path, bool lockOnAccess, bool waitForLock);
  QmIniReaderWriterEx(const char* path, bool lockOnAccess, bool waitForLock);
  ~QmIniReaderWriterEx() override;

  // Opens the file ("w+" when `create`, which empties it, else "r+"), closing
  // any file opened before. False when the file cannot be opened.
  bool open(bool create);
  // Locks the open file, shared or exclusive, blocking when the wait flag is
  // set. True when the file is locked afterwards (also when it already was).
  bool lock(bool shared);
  bool unlock();
  bool islocked() const { return m_locked; }

  // Parses the open file from its start; no reopening or relocking.
  bool read() override;
  // Rewrites the open file from the list.
  bool write();
  // Writes the list to another file (to the open one when `path` is its own).
  bool write(const std::string& path);
  // Same as write() when `path` is null, else write(*path).
  bool write(std::string* path) override;
  // Unlocks and closes the file; false when none was open.
  bool close();

 private:
  std::unique_ptr<QmioFile> m_file;
  bool m_locked = false;
};

#endif
