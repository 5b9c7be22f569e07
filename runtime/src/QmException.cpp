#include "QmException.h"

#include "QmString.h"

QmException::QmException(const std::string& msg) : m_msg(msg) {}

QmException::QmException(const std::string& file, int line, const std::string& msg)
    : m_msg(msg), m_file(file), m_line(line) {}

QmException::QmException(const std::string& file, int line, const std::string& msg,
                         const std::string& sysMsg)
    : m_msg(msg), m_file(file), m_line(line), m_sysMsg(sysMsg) {}

QmException::~QmException() = default;

std::string QmException::ToString() const {
  return QmstringFormat("Exception raised! File[%s] Line[%d] Msg[%s] SysMsg[%s]", m_file.c_str(),
                        m_line, m_msg.c_str(), m_sysMsg.c_str());
}
