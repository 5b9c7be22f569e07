#include "QmioFile.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "QmconFunctions.h"
#include "QmioException.h"

QmioFile::QmioFile(const std::string& path) : m_path(path) {}

QmioFile::~QmioFile() {
  if (m_stream == nullptr) return;
  if (m_locked) flock(fileno(m_stream), LOCK_UN);
  std::fclose(m_stream);
}

void QmioFile::Open(const std::string& mode) {
  if (m_stream != nullptr) Close();
  m_stream = std::fopen(m_path.c_str(), mode.c_str());
  if (m_stream == nullptr) QMIO_THROW(m_path, "File Open Failed");
}

void QmioFile::Truncate(long length) {
  if (m_stream == nullptr) QMIO_THROW(m_path, "File Not Open");
  std::fflush(m_stream);
  if (ftruncate(fileno(m_stream), length) != 0) QMIO_THROW(m_path, "File Truncate Failed");
  std::fseek(m_stream, 0, SEEK_SET);
}

void QmioFile::Write(const std::string& text) {
  if (m_stream == nullptr) QMIO_THROW(m_path, "File Not Open");
  if (std::fwrite(text.data(), 1, text.size(), m_stream) != text.size()) {
    QMIO_THROW(m_path, "File Write Failed");
  }
}

void QmioFile::Flush() {
  if (m_stream != nullptr && std::fflush(m_stream) != 0) QMIO_THROW(m_path, "File Flush Failed");
}

void QmioFile::Close() {
  if (m_stream == nullptr) return;
  if (m_locked) Unlock();
  const int rc = std::fclose(m_stream);
  m_stream = nullptr;
  if (rc != 0) QMIO_THROW(m_path, "File Close Failed");
}

void QmioFile::Lock(const std::string& mode, bool wait) {
  if (m_stream == nullptr) QMIO_THROW(m_path, "File Not Open");
  int operation = (mode == "r") ? LOCK_SH : LOCK_EX;
  if (!wait) operation |= LOCK_NB;
  int rc;
  do {
    rc = flock(fileno(m_stream), operation);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) QMIO_THROW(m_path, "File Lock Failed");
  m_locked = true;
}

void QmioFile::Unlock() {
  if (m_stream == nullptr || !m_locked) return;
  m_locked = false;
  if (flock(fileno(m_stream), LOCK_UN) != 0) QMIO_THROW(m_path, "File Unlock Failed");
}

bool QmioFile::Exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}
