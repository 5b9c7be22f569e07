#include "QmIniReaderWriterEx.h"

#include <cstdio>

#include "QmioException.h"
#include "QmioFile.h"

QmIniReaderWriterEx::QmIniReaderWriterEx(const std::string& path, bool lockOnAccess,
                                         bool waitForLock)
    : IniReaderWriter(path, false, lockOnAccess, waitForLock) {}

QmIniReaderWriterEx::QmIniReaderWriterEx(const char* path, bool lockOnAccess, bool waitForLock)
    : IniReaderWriter(path, false, lockOnAccess, waitForLock) {}

QmIniReaderWriterEx::~QmIniReaderWriterEx() {
  close();
}

bool QmIniReaderWriterEx::open(bool create) {
  close();
  auto file = std::make_unique<QmioFile>(getPath());
  try {
    file->Open(create ? "w+" : "r+");
  } catch (const QmException&) {
    return false;
  }
  m_file = std::move(file);
  return true;
}

bool QmIniReaderWriterEx::lock(bool shared) {
  if (!m_file) return false;
  if (m_locked) return true;
  try {
    m_file->Lock(shared ? "r" : "w", m_waitForLock);
  } catch (const QmException&) {
    return false;
  }
  m_locked = true;
  return true;
}

bool QmIniReaderWriterEx::unlock() {
  if (!m_file || !m_locked) return false;
  m_locked = false;
  try {
    m_file->Unlock();
  } catch (const QmException&) {
    return false;
  }
  return true;
}

bool QmIniReaderWriterEx::read() {
  if (!m_file) return false;
  FILE* stream = m_file->GetStream();
  if (std::fseek(stream, 0, SEEK_SET) != 0) return false;
  parse(stream);
  m_loaded = true;
  return true;
}

bool QmIniReaderWriterEx::write() {
  if (!m_file) return false;
  const std::string text = format();
  try {
    if (std::fseek(m_file->GetStream(), 0, SEEK_SET) != 0) return false;
    m_file->Write(text);
    m_file->Flush();
    m_file->Truncate(static_cast<long>(text.size()));
  } catch (const QmException&) {
    return false;
  }
  return true;
}

bool QmIniReaderWriterEx::write(const std::string& path) {
  // A second descriptor on our own file would fight our own lock.
  if (m_file && path == getPath()) return write();
  std::string target = path;
  return IniReaderWriter::write(&target);
}

bool QmIniReaderWriterEx::write(std::string* path) {
  return path ? write(*path) : write();
}

bool QmIniReaderWriterEx::close() {
  if (!m_file) return false;
  unlock();
  try {
    m_file->Close();
  } catch (const QmException&) {
    // the descriptor is gone either way
  }
  m_file.reset();
  return true;
}
