#include "QmconThread.h"

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <system_error>

#include "QmString.h"
#include "QmconException.h"
#include "QmconFunctions.h"

const pthread_t QmconThread::kNoThread = static_cast<pthread_t>(-1);

namespace {

// How long Stop waits for the thread to reach its next wait.
const std::chrono::milliseconds kSuspendAckWait(1000);
const int kPollStepMs = 250;

std::string CreateErrorText(int rc) {
  switch (rc) {
    case ENOMEM:
      return "Out of resource";
    case EINVAL:
      return "Invalid attribute";
    case EPERM:
      return "Permission denied";
    default:
      return QmstringFormat("Unknown Error [%d]", rc);
  }
}

// Runs a request; a lock that fails turns into the request's failure text.
template <typename Request>
void Deliver(const char* failure, Request request) {
  try {
    request();
  } catch (const std::system_error& e) {
    errno = e.code().value();
    QMCON_THROW(failure);
  }
}

}  // namespace

// What a running thread and its thread object share: the requests made of
// the thread and its state. The thread holds it for its whole life, so it
// outlives the thread object when that goes first.
class QmconThread::Control {
 public:
  Control(QmconThread* owner, QmconDelegate* work, bool autoClean)
      : m_owner(owner), m_work(work), m_autoClean(autoClean) {}

  // Run is done with the thread object: the thread may start.
  void Launch(pthread_t id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_id = id;
    m_launched = true;
    m_changed.notify_all();
  }
  void WaitForLaunch() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_launched; });
  }
  // The thread's last touch of its delegate's hooks: no request reaches the
  // delegate after this.
  void Finish() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_running = false;
    m_changed.notify_all();
  }

  void RequestKill() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running) return;
    m_killed = true;
    m_changed.notify_all();
    if (m_work != nullptr) m_work->StopWork();
  }
  void RequestSuspend() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_running || m_killed) return;
    m_suspendAsked = true;
    if (m_work != nullptr) m_work->PauseWork();
    m_changed.wait_for(lock, kSuspendAckWait, [this] { return m_suspended || !m_running; });
  }
  void RequestResume() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running) return;
    m_suspendAsked = false;
    m_changed.notify_all();
    if (m_work != nullptr) m_work->ResumeWork();
  }
  // On the thread itself: sleeps while a suspension is asked for.
  void HonourSuspension() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_suspendAsked || m_killed) return;
    m_suspended = true;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return !m_suspendAsked || m_killed; });
    m_suspended = false;
  }
  // True once the thread has ended; waits up to `timeout` for that.
  bool WaitForEnd(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [this] { return !m_running; });
  }

  bool Running() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_running;
  }
  pthread_t Id() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_running ? m_id : kNoThread;
  }
  void SetAutoClean(bool autoClean) { m_autoClean = autoClean; }
  bool AutoClean() const { return m_autoClean; }
  QmconThread* Owner() const { return m_owner; }
  QmconDelegate* Work() const { return m_work; }

 private:
  QmconThread* const m_owner;
  QmconDelegate* const m_work;
  std::atomic<bool> m_autoClean;

  std::mutex m_mutex;  // guards everything below
  std::condition_variable m_changed;
  pthread_t m_id = kNoThread;
  bool m_launched = false;
  bool m_running = true;
  bool m_killed = false;
  bool m_suspendAsked = false;
  bool m_suspended = false;
};

QmconThread::Control*& QmconThread::ThisThreadControl() {
  thread_local Control* control = nullptr;
  return control;
}

QmconThread::QmconThread() = default;

QmconThread::~QmconThread() = default;

void QmconThread::InitializeLibrary() {}

void QmconThread::CloseLibrary() {}

std::shared_ptr<QmconThread::Control> QmconThread::Current() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_control != nullptr && !m_control->Running()) return nullptr;
  return m_control;
}

void QmconThread::Run(QmconDelegate* work) {
  std::shared_ptr<Control> control;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_control != nullptr && m_control->Running()) return;
    control = std::make_shared<Control>(this, work, m_autoClean);
    m_control = control;
  }
  auto* handle = new std::shared_ptr<Control>(control);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t id;
  const int rc = pthread_create(&id, &attr, &QmconThread::ThreadWork, handle);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete handle;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_control == control) m_control.reset();
    }
    throw QmconException(::GetMyThreadID(), __FILE__, __LINE__, "Create Thread Failed",
                         CreateErrorText(rc));
  }
  // From here on an auto-cleaning thread may delete this object.
  control->Launch(id);
}

void* QmconThread::ThreadWork(void* handle) {
  std::shared_ptr<Control> control;
  {
    std::unique_ptr<std::shared_ptr<Control>> owned(static_cast<std::shared_ptr<Control>*>(handle));
    control = std::move(*owned);
  }
  control->WaitForLaunch();
  QmconDelegate* work = control->Work();
  if (work != nullptr) {
    ThisThreadControl() = control.get();
    work->DoWork(work->GetUserData());
    ThisThreadControl() = nullptr;
  }
  control->Finish();
  if (control->AutoClean()) {
    delete control->Owner();
    delete work;
  }
  return nullptr;
}

void QmconThread::Kill() {
  std::shared_ptr<Control> control;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    control.swap(m_control);
  }
  if (control != nullptr) Deliver("Kill Thread Failed", [&] { control->RequestKill(); });
}

void QmconThread::Stop() {
  const std::shared_ptr<Control> control = Current();
  if (control != nullptr) Deliver("Suspend Thread Failed", [&] { control->RequestSuspend(); });
}

void QmconThread::Resume() {
  const std::shared_ptr<Control> control = Current();
  if (control == nullptr) QMCON_THROW("Resume Thread Failed");
  Deliver("Resume Thread Failed", [&] { control->RequestResume(); });
}

void QmconThread::SuspendIfRequested() {
  Control* control = ThisThreadControl();
  if (control != nullptr) control->HonourSuspension();
}

bool QmconThread::IsRunning() const {
  return Current() != nullptr;
}

pthread_t QmconThread::GetThreadID() const {
  const std::shared_ptr<Control> control = Current();
  return control != nullptr ? control->Id() : kNoThread;
}

void QmconThread::SetAutoClean(bool autoClean) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_autoClean = autoClean;
  if (m_control != nullptr) m_control->SetAutoClean(autoClean);
}

bool QmconThread::IsThreadActive(unsigned long pid) {
  return kill(static_cast<pid_t>(pid), 0) == 0;
}

pthread_t QmconThread::GetMyThreadID() {
  return pthread_self();
}

int QmconThread::WaitForThreadObject(unsigned long timeoutMs) {
  const std::shared_ptr<Control> control = Current();
  unsigned long remaining = timeoutMs;
  while (control != nullptr && !control->WaitForEnd(std::chrono::milliseconds(kPollStepMs))) {
    remaining -= kPollStepMs;
    if (remaining == 0) break;
  }
  return 0;
}
