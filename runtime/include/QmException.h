#ifndef QM_RUNTIME_QMEXCEPTION_H
#define QM_RUNTIME_QMEXCEPTION_H

#include <exception>
#include <string>

// The runtime's exception: a message plus the source file (its name, not
// its path) and line that raised it and the text of the last system error
// at that moment.
// Thrown by value; subclasses add a thread id or an I/O path.
class QmException : public std::exception {
 public:
  QmException() = default;
  explicit QmException(const std::string& msg);
  QmException(const std::string& file, int line, const std::string& msg);
  QmException(const std::string& file, int line, const std::string& msg, const std::string& sysMsg);
  ~QmException() override;

  // "Exception raised! File[%s] Line[%d] Msg[%s] SysMsg[%s]"
  virtual std::string ToString() const;
  virtual std::string GetMsg() const { return m_msg; }
  virtual std::string GetFile() const { return m_file; }
  virtual int GetLine() const { return m_line; }
  virtual std::string GetSysMsg() const { return m_sysMsg; }

  const char* what() const noexcept override { return m_msg.c_str(); }

 protected:
  std::string m_msg;
  std::string m_file;
  int m_line = 0;
  std::string m_sysMsg;
};

// Raises a QmException carrying this source file and line.
#define QM_THROW(msg) throw QmException(__FILE__, __LINE__, (msg))

#endif
