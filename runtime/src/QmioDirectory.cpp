#include "QmioDirectory.h"

#include <sys/stat.h>

#include <cerrno>

namespace {

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

std::string QmioDirectory::Of(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool QmioDirectory::Create(const std::string& directory) {
  if (directory.empty() || IsDirectory(directory)) return true;
  for (size_t slash = directory.find('/', 1); slash != std::string::npos;
       slash = directory.find('/', slash + 1)) {
    mkdir(directory.substr(0, slash).c_str(), 0775);
  }
  if (mkdir(directory.c_str(), 0775) == 0) return true;
  const int savedErrno = errno;
  if (IsDirectory(directory)) return true;  // made meanwhile by someone else
  errno = savedErrno;
  return false;
}
