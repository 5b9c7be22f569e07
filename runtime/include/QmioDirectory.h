#ifndef QM_RUNTIME_QMIODIRECTORY_H
#define QM_RUNTIME_QMIODIRECTORY_H

#include <string>

// Directory helpers of the logging classes: the directory a file lives in,
// and creating a directory with whatever parents it lacks. Stateless.
class QmioDirectory {
 public:
  // The part of `path` before its last "/": "/" for a file at the root, "."
  // for a bare file name.
  static std::string Of(const std::string& path);
  // Creates `directory` and its missing parents (mode 0775 before the
  // umask). True when it is a directory afterwards; errno tells why not.
  static bool Create(const std::string& directory);
};

#endif
