#ifndef QM_RUNTIME_QMIOEXCEPTION_H
#define QM_RUNTIME_QMIOEXCEPTION_H

#include "QmException.h"

// Failure of a file or socket operation; adds the I/O path (a file path, or
// for a socket the remote end).
class QmioException : public QmException {
 public:
  QmioException(const std::string& path, const std::string& file, int line, const std::string& msg);
  QmioException(const std::string& path, const std::string& file, int line, const std::string& msg,
                const std::string& sysMsg);
  QmioException(const std::string& path, const std::string& msg);

  // "Exception raised! IO path[%s] File[%s] Line[%d] Msg[%s] SysMsg[%s]"
  std::string ToString() const override;
  std::string GetPath() const { return m_path; }

 private:
  std::string m_path;
};

// Raises a QmioException for `path` with the last system error.
#define QMIO_THROW(path, msg) \
  throw QmioException((path), __FILE__, __LINE__, (msg), QmgetLastError())

#endif
