#include "LockFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "QmconException.h"
#include "QmconFunctions.h"

namespace {

[[noreturn]] void ThrowCreationFailed() {
  throw QmconException(GetMyThreadID(), "LockFile", __LINE__, "LockFile Creation Failed",
                       QmgetLastError());
}

// A non-blocking exclusive lock on the whole file for this open file
// description (l_pid must be 0 for such locks).
bool TryLock(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;
  lock.l_pid = 0;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

}  // namespace

LockFile::LockFile(const std::string& path, int attempts, int sleepMs) {
  if (path.empty()) ThrowCreationFailed();
  for (int attempt = 0; attempt < attempts; ++attempt) {
    const int fd = open(path.c_str(), O_RDWR | O_SYNC | O_CREAT | O_CLOEXEC, 0664);
    if (fd < 0) {
      if (errno == EINTR) continue;
      ThrowCreationFailed();  // waiting would not make the file usable
    }
    if (TryLock(fd)) {
      m_fd = fd;
      return;
    }
    const int savedErrno = errno;
    close(fd);
    errno = savedErrno;
    if (savedErrno != EAGAIN && savedErrno != EACCES && savedErrno != EINTR) {
      ThrowCreationFailed();
    }
    Qmsleep(sleepMs);
    errno = savedErrno;
  }
  ThrowCreationFailed();
}

LockFile::~LockFile() {
  if (m_fd >= 0) close(m_fd);
}
