#ifndef QM_RUNTIME_QMCONEXCEPTION_H
#define QM_RUNTIME_QMCONEXCEPTION_H

#include "QmException.h"

// Failure of a concurrency primitive; adds the raising thread's id.
class QmconException : public QmException {
 public:
  QmconException(unsigned int threadId, const std::string& msg);
  QmconException(unsigned int threadId, const std::string& file, int line, const std::string& msg);
  QmconException(unsigned int threadId, const std::string& file, int line, const std::string& msg,
                 const std::string& sysMsg);

  // "Exception raised! ThreadID[%d] File[%s] Line[%d] Msg[%s] SysMsg[%s]"
  std::string ToString() const override;
  unsigned int GetThreadID() const { return m_threadId; }

 private:
  unsigned int m_threadId;
};

// Raises a QmconException for the calling thread, with the last system error.
#define QMCON_THROW(msg) \
  throw QmconException(GetMyThreadID(), __FILE__, __LINE__, (msg), QmgetLastError())

#endif
