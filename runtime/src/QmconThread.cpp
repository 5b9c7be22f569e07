#include "QmconThread.h"

#include <sched.h>
#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <cerrno>

#include "QmString.h"
#include "QmconException.h"
#include "QmconFunctions.h"

const pthread_t QmconThread::kNoThread = static_cast<pthread_t>(-1);

namespace {

pthread_mutex_t the_ThreadGuard = PTHREAD_MUTEX_INITIALIZER;
// One flag for the whole process, set by whichever thread was suspended last.
std::atomic<bool> is_Suspend{false};

// Handed from Run to the new thread. The thread waits on `ready` until Run
// has stored its id, so an auto-cleaning thread never outruns its starter.
struct StartRecord {
  QmconThread* thread;
  QmconDelegate* work;
  sem_t ready;
};

// SIGUSR1: sleep inside the handler until SIGUSR2 arrives.
void StopSingleHandler(int) {
  const int savedErrno = errno;
  sigset_t set;
  sigfillset(&set);
  sigdelset(&set, SIGUSR2);
  is_Suspend = true;
  sigsuspend(&set);
  errno = savedErrno;
}

// SIGUSR2: exists only so that the signal interrupts the suspension.
void StartSingleHandler(int) {}

// SIGQUIT and SIGTERM: end the receiving thread, not the process.
void EndThreadHandler(int) {
  pthread_exit(nullptr);
}

void InstallHandler(int signo, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  if (sigaction(signo, &action, nullptr) != 0) QMCON_THROW("Initialize Thread Lib Failed");
}

// The C library loads its unwinder on the first pthread_exit. Doing that
// inside a signal handler would allocate there, so one short-lived thread
// exits once at start-up.
void PreloadThreadExitSupport() {
  pthread_t id;
  if (pthread_create(
          &id, nullptr, [](void*) -> void* { pthread_exit(nullptr); }, nullptr) == 0) {
    pthread_join(id, nullptr);
  }
}

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

}  // namespace

QmconThread::~QmconThread() = default;

void QmconThread::InitializeLibrary() {
  if (pthread_mutex_init(&the_ThreadGuard, nullptr) != 0) QMCON_THROW("Create Lock Failed");
  PreloadThreadExitSupport();
  InstallHandler(SIGUSR1, StopSingleHandler);
  InstallHandler(SIGUSR2, StartSingleHandler);
  InstallHandler(SIGQUIT, EndThreadHandler);
  InstallHandler(SIGTERM, EndThreadHandler);
}

void QmconThread::CloseLibrary() {
  if (pthread_mutex_destroy(&the_ThreadGuard) == -1) QMCON_THROW("Initialize Thread Lib Failed");
}

void QmconThread::Run(QmconDelegate* work) {
  if (m_threadId.load() != kNoThread) return;

  auto* record = new StartRecord{this, work, {}};
  sem_init(&record->ready, 0, 0);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t id;
  const int rc = pthread_create(&id, &attr, &QmconThread::ThreadWork, record);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    sem_destroy(&record->ready);
    delete record;
    throw QmconException(::GetMyThreadID(), __FILE__, __LINE__, "Create Thread Failed",
                         CreateErrorText(rc));
  }
  m_threadId = id;
  sem_post(&record->ready);
}

void* QmconThread::ThreadWork(void* arg) {
  auto* record = static_cast<StartRecord*>(arg);
  while (sem_wait(&record->ready) != 0) {
  }
  QmconThread* thread = record->thread;
  QmconDelegate* work = record->work;
  sem_destroy(&record->ready);
  delete record;

  if (work != nullptr) work->DoWork(work->GetUserData());
  // Once the id is reset the owner may destroy the thread object, so read
  // the flag first and touch nothing of it afterwards.
  const bool autoClean = thread->m_autoClean;
  thread->m_threadId = kNoThread;
  if (autoClean) {
    delete thread;
    delete work;
  }
  return nullptr;
}

void QmconThread::Kill() {
  const pthread_t id = m_threadId.load();
  if (id == kNoThread) return;
  if (pthread_kill(id, SIGQUIT) != 0) QMCON_THROW("Kill Thread Failed");
  m_threadId = kNoThread;
}

void QmconThread::Stop() {
  const pthread_t id = m_threadId.load();
  if (id == kNoThread) return;
  pthread_mutex_lock(&the_ThreadGuard);
  is_Suspend = false;
  pthread_mutex_unlock(&the_ThreadGuard);
  if (pthread_kill(id, SIGUSR1) != 0) QMCON_THROW("Suspend Thread Failed");
  while (!is_Suspend) sched_yield();
}

// Sends SIGUSR1 like Stop; a suspended thread wakes only on SIGUSR2. This
// asymmetry is established behaviour that callers account for.
void QmconThread::Resume() {
  if (pthread_kill(m_threadId.load(), SIGUSR1) != 0) QMCON_THROW("Resume Thread Failed");
}

bool QmconThread::IsRunning() const {
  const pthread_t id = m_threadId.load();
  return id != kNoThread && pthread_kill(id, 0) == 0;
}

bool QmconThread::IsThreadActive(unsigned long pid) {
  return kill(static_cast<pid_t>(pid), 0) == 0;
}

pthread_t QmconThread::GetMyThreadID() {
  return pthread_self();
}

// Polls every 250 ms while the thread lives. The count stops the loop only
// when it reaches exactly zero, so a time-out that is not a multiple of 250
// waits for the thread's end.
int QmconThread::WaitForThreadObject(unsigned long timeoutMs) {
  unsigned long remaining = timeoutMs;
  while (IsRunning()) {
    Qmsleep(250);
    remaining -= 250;
    if (remaining == 0) break;
  }
  return 0;
}
