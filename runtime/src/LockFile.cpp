#include "LockFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "QmconException.h"
#include "QmconFunctions.h"

namespace {

bool Exists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

[[noreturn]] void ThrowCreationFailed() {
  throw QmconException(GetMyThreadID(), "LockFile", __LINE__, "LockFile Creation Failed",
                       QmgetLastError());
}

}  // namespace

LockFile::LockFile(const std::string& path, int attempts, int sleepMs) {
  if (path.empty()) ThrowCreationFailed();
  const int flags = O_RDWR | O_SYNC;
  bool seen = false;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    // A missing lock file is created exclusively. Once it has been seen to
    // exist (made by us or by a concurrent writer) it is only opened, so a
    // lost creation race does not fail every later attempt.
    if (!seen) seen = Exists(path);
    const int openFlags = seen ? flags : (flags | O_CREAT | O_EXCL);
    if (tryLock(path, openFlags)) return;
    const int savedErrno = errno;
    Qmsleep(sleepMs);
    errno = savedErrno;
  }
  ThrowCreationFailed();
}

LockFile::~LockFile() {
  if (m_fd >= 0) close(m_fd);
}

// Opens the lock file and takes a non-blocking exclusive lock on the whole
// file for this open file description (l_pid must be 0 for such locks).
bool LockFile::tryLock(const std::string& path, int flags) {
  const int fd = open(path.c_str(), flags, 0664);
  if (fd < 0) return false;
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;
  lock.l_pid = 0;
  if (fcntl(fd, F_OFD_SETLK, &lock) != 0) {
    const int savedErrno = errno;
    close(fd);
    errno = savedErrno;
    return false;
  }
  m_fd = fd;
  return true;
}
