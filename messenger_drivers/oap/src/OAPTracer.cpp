#include "OAPTracer.h"

#include <utility>

#include "QmLogInterface.h"

OAPTracer::OAPTracer(QmLogInterface* logger, const char* source, int line, const char* operation,
                     std::string result)
    : m_logger(logger),
      m_source(source),
      m_line(line),
      m_operation(operation),
      m_result(std::move(result)) {
  Write(false);
}

OAPTracer::~OAPTracer() {
  Write(true);
}

void OAPTracer::Write(bool leaving) const noexcept {
  if (m_logger == nullptr) return;
  try {
    std::string text = leaving ? "Leaving " : "Entering ";
    text += m_operation;
    text += "()";
    if (leaving && !m_result.empty()) text += " with " + m_result;
    text += ".";
    m_logger->WriteTrace(text, m_line, m_source);
  } catch (...) {
    // A trace line that cannot be written (no memory, a logger that throws)
    // is lost; the call it traces goes on.
  }
}
