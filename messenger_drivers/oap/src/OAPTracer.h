#ifndef QM_OAP_OAPTRACER_H
#define QM_OAP_OAPTRACER_H

#include <string>
#include <utility>

class QmLogInterface;

// The trace lines of one call of an operation: "Entering <operation>()." at
// trace level when made, and "Leaving <operation>() with <result>." (or
// "Leaving <operation>()." without a result) when the call's scope ends, also
// when an exception passes. The result is the one given at construction until
// SetResult replaces it, so a call that throws reports its failure value.
//
// Nothing is written without a logger, and writing never throws. A tracer
// belongs to one call on one thread; the logger must outlive it.
class OAPTracer {
 public:
  // `operation` ("Class::Operation") and `source` must outlive the tracer;
  // `source` and `line` go with both lines.
  OAPTracer(QmLogInterface* logger, const char* source, int line, const char* operation,
            std::string result = std::string());
  ~OAPTracer();
  OAPTracer(const OAPTracer&) = delete;
  OAPTracer& operator=(const OAPTracer&) = delete;

  void SetResult(std::string result) { m_result = std::move(result); }
  // The result text of a boolean: "TRUE" or "FALSE".
  static const char* TrueFalse(bool value) { return value ? "TRUE" : "FALSE"; }

 private:
  void Write(bool leaving) const noexcept;

  QmLogInterface* const m_logger;
  const char* const m_source;
  const int m_line;
  const char* const m_operation;
  std::string m_result;
};

#endif
