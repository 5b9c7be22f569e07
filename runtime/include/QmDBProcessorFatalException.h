#ifndef QM_RUNTIME_QMDBPROCESSORFATALEXCEPTION_H
#define QM_RUNTIME_QMDBPROCESSORFATALEXCEPTION_H

#include <exception>
#include <string>

// Raised by the log database processor when the database cannot be opened
// or a module table cannot be created. Carries the database error code.
class QmDBProcessorFatalException : public std::exception {
 public:
  QmDBProcessorFatalException(int code, const std::string& message);
  ~QmDBProcessorFatalException() override;

  const char* what() const noexcept override { return m_message.c_str(); }
  int getErrorCode() const { return m_code; }
  const std::string& getMessage() const { return m_message; }

 private:
  int m_code;
  std::string m_message;
};

#endif
