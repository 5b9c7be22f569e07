#include "QmioException.h"

#include "QmString.h"

QmioException::QmioException(const std::string& path, const std::string& file, int line,
                             const std::string& msg)
    : QmException(file, line, msg), m_path(path) {}

QmioException::QmioException(const std::string& path, const std::string& file, int line,
                             const std::string& msg, const std::string& sysMsg)
    : QmException(file, line, msg, sysMsg), m_path(path) {}

QmioException::QmioException(const std::string& path, const std::string& msg)
    : QmException(msg), m_path(path) {}

std::string QmioException::ToString() const {
  return QmstringFormat("Exception raised! IO path[%s] File[%s] Line[%d] Msg[%s] SysMsg[%s]",
                        m_path.c_str(), m_file.c_str(), m_line, m_msg.c_str(), m_sysMsg.c_str());
}
