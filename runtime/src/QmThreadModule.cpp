#include "QmThreadModule.h"

#include <cxxabi.h>

#include <chrono>
#include <exception>
#include <new>

#include "QmException.h"
#include "QmString.h"
#include "QmconException.h"
#include "QmconFunctions.h"
#include "QmioException.h"

namespace {

const char* const kSource = "QmThreadModule";
// After the stopped event the worker only leaves its thread entry.
const int kThreadObjectIdleMs = 2000;

}  // namespace

QmThreadModule::QmThreadModule() = default;

QmThreadModule::~QmThreadModule() {
  WaitForThreadObjectIdle();
}

void QmThreadModule::WaitForThreadObjectIdle() {
  // The thread object is written by the finishing worker after DoWork; it may
  // only be destroyed once the worker has reported its end and let go of it.
  if (m_thread == nullptr || m_stoppedEvent == nullptr) return;
  if (m_stoppedEvent->Wait(0) != QmconEvent::SIGNALLED) {
    (void)m_thread.release();  // still running: the object must not go away under it
    return;
  }
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kThreadObjectIdleMs);
  while (!pthread_equal(m_thread->GetThreadID(), QmconThread::kNoThread) &&
         std::chrono::steady_clock::now() < deadline) {
    Qmsleep(1);
  }
}

bool QmThreadModule::StartAsThread() {
  QM_LOG(m_logger, Trace, kSource, "Entering QmThreadModule::StartAsThread()");
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
  m_thread->Run(static_cast<QmconDelegate*>(this));
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
  m_stoppedEvent->Broadcast();
  QM_LOG(m_logger, Trace, kSource, "Leaving QmThreadModule::DoWork()");
}

void QmThreadModule::RunGuarded() {
  try {
    DoThreadWork();
  } catch (const abi::__forced_unwind&) {
    throw;  // the thread is being ended by a signal; let it go
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
