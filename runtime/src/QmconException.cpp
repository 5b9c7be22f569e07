#include "QmconException.h"

#include "QmString.h"

QmconException::QmconException(unsigned int threadId, const std::string& msg)
    : QmException(msg), m_threadId(threadId) {}

QmconException::QmconException(unsigned int threadId, const std::string& file, int line,
                               const std::string& msg)
    : QmException(file, line, msg), m_threadId(threadId) {}

QmconException::QmconException(unsigned int threadId, const std::string& file, int line,
                               const std::string& msg, const std::string& sysMsg)
    : QmException(file, line, msg, sysMsg), m_threadId(threadId) {}

std::string QmconException::ToString() const {
  return QmstringFormat("Exception raised! ThreadID[%d] File[%s] Line[%d] Msg[%s] SysMsg[%s]",
                        static_cast<int>(m_threadId), m_file.c_str(), m_line, m_msg.c_str(),
                        m_sysMsg.c_str());
}
