#include "QmDBProcessorFatalException.h"

QmDBProcessorFatalException::QmDBProcessorFatalException(int code, const std::string& message)
    : m_code(code), m_message(message) {}

QmDBProcessorFatalException::~QmDBProcessorFatalException() = default;
