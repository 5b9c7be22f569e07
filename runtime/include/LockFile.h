#ifndef QM_RUNTIME_LOCKFILE_H
#define QM_RUNTIME_LOCKFILE_H

#include <string>

// An exclusive lock on a lock file, held from construction to destruction.
// The lock belongs to this object's own open file description, so it
// serialises the threads of one process as well as separate processes
// (unlike classic record locks, which are per process), and it goes with
// the descriptor when its holder dies. Construction creates the lock file
// when missing and, while someone else holds the lock, retries every
// `sleepMs` up to `attempts` times; it then throws QmconException
// "LockFile Creation Failed". A lock file that cannot be opened or created
// at all (no permission, read-only file system, missing directory) fails
// at once with the same exception and the system's reason. The lock file
// is left in place.
class LockFile {
 public:
  static const int kDefaultAttempts = 2000;
  static const int kDefaultSleepMs = 30;

  explicit LockFile(const std::string& path, int attempts = kDefaultAttempts,
                    int sleepMs = kDefaultSleepMs);
  ~LockFile();  // closes the lock file, releasing the lock
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

 private:
  int m_fd = -1;
};

#endif
