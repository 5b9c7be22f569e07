#include "QmThreadModule.h"

#include <exception>
#include <new>

#include "QmException.h"
#include "QmString.h"
#include "QmconException.h"
#include "QmconFunctions.h"
#include "QmioException.h"

namespace {

const char* const kSource = "QmThreadModule";

}  // namespace

QmThreadModule::QmThreadModule() = default;

QmThreadModule::~QmThreadModule() = default;

bool QmThreadModule::IsThreadRunning() const {
  return m_stoppedEvent != nullptr && m_stoppedEvent->Wait(0) != QmconEvent::SIGNALLED;
}

bool QmThreadModule::StartAsThread() {
  QM_LOG(m_logger, Trace, kSource, "Entering QmThreadModule::StartAsThread()");
  if (IsThreadRunning()) {
    // Its events and thread object are in use: a second start would pull
    // them from under the running thread.
    QM_LOG(m_logger, Error, kSource,
           QmstringFormat("Unable to start '%s' thread: it is already running.",
                          GetRunningModuleName().c_str()));
    QM_LOG(m_logger, Trace, kSource,
           QmstringFormat("Leaving QmThreadModule::StartAsThread() with %s.", "FALSE"));
    return false;
  }
  m_stopEvent.reset(new (std::nothrow) QmconEvent(true));
  m_stoppedEvent.reset(new (std::nothrow) QmconEvent(true));
  if (m_stopEvent == nullptr || m_stoppedEvent == nullptr) {
    QM_THROW(
        QmstringFormat("Unable to create event object. Failure while instantiating event "
                       "object for '%s' call-processor.",
                       GetRunningModuleName().c_str()));
  }
  m_thread.reset(new (std::nothrow) QmconThread());
  if (m_thread == nullptr) {
    QM_THROW(
        QmstringFormat("Unable to create thread object. Failure while instantiating thread "
                       "object for '%s' call-processor.",
                       GetRunningModuleName().c_str()));
  }
  QM_LOG(m_logger, Info, kSource,
         QmstringFormat("Starting '%s' thread, pid:%ul ...", GetRunningModuleName().c_str(),
                        GetMyThreadID()));
  try {
    m_thread->Run(static_cast<QmconDelegate*>(this));
  } catch (const QmconException&) {
    m_stoppedEvent.reset();  // nothing runs: a later start may try again
    throw;
  }
  QM_LOG(m_logger, Trace, kSource,
         QmstringFormat("Leaving QmThreadModule::StartAsThread() with %s.", "TRUE"));
  return true;
}

bool QmThreadModule::StopThread() {
  if (m_stopEvent != nullptr) m_stopEvent->Broadcast();
  return true;
}

bool QmThreadModule::WaitForThreadStop(int timeoutMs) {
  if (m_stoppedEvent == nullptr) return false;
  return m_stoppedEvent->Wait(timeoutMs) == QmconEvent::SIGNALLED;
}

bool QmThreadModule::KeepContinueMyself(int timeoutMs, bool honourStop) {
  if (timeoutMs <= 0) return true;
  const int waited = (m_stopEvent != nullptr) ? m_stopEvent->Wait(timeoutMs) : QmconEvent::FAILED;
  if (waited == QmconEvent::FAILED) {
    QM_LOG(m_logger, Error, kSource,
           "The STOP THREAD event WAIT() returned error. Resuming operation.");
  }
  if (!honourStop) return false;
  return waited != QmconEvent::SIGNALLED;
}

void QmThreadModule::DoWork(void* /*data*/) {
  QM_LOG(m_logger, Trace, kSource, "Entering QmThreadModule::DoWork()");
  RunGuarded();
  Finalize();
  QM_LOG(m_logger, Trace, kSource, "Leaving QmThreadModule::DoWork()");
  // The last touch of the module: its owner may delete it once this is seen.
  m_stoppedEvent->Broadcast();
}

void QmThreadModule::RunGuarded() {
  try {
    DoThreadWork();
  } catch (const QmconException& e) {
    QM_LOG(m_logger, Critical, kSource,
           QmstringFormat("Concurrency exception occurred: %s", e.ToString().c_str()));
  } catch (const QmioException& e) {
    QM_LOG(m_logger, Critical, kSource,
           QmstringFormat("I/O exception occurred: %s", e.ToString().c_str()));
  } catch (const std::exception& e) {
    QM_LOG(m_logger, Critical, kSource, QmstringFormat("General exception occurred: %s", e.what()));
  } catch (...) {
    QM_LOG(m_logger, Critical, kSource, "Unknown exception occurred.");
  }
}
