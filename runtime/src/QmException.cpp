#include "QmException.h"

#include "QmString.h"

namespace {

// The raising file's name without the folders the build named it by, so
// texts do not carry build paths.
std::string FileName(const std::string& path) {
  return path.substr(path.find_last_of('/') + 1);
}

}  // namespace

QmException::QmException(const std::string& msg) : m_msg(msg) {}

QmException::QmException(const std::string& file, int line, const std::string& msg)
    : m_msg(msg), m_file(FileName(file)), m_line(line) {}

QmException::QmException(const std::string& file, int line, const std::string& msg,
                         const std::string& sysMsg)
    : m_msg(msg), m_file(FileName(file)), m_line(line), m_sysMsg(sysMsg) {}

QmException::~QmException() = default;

std::string QmException::ToString() const {
  return QmstringFormat("Exception raised! File[%s] Line[%d] Msg[%s] SysMsg[%s]", m_file.c_str(),
                        m_line, m_msg.c_str(), m_sysMsg.c_str());
}
