#include "QmioSocketPool.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "QmconCriticalSection.h"
#include "QmconException.h"
#include "QmconFunctions.h"
#include "QmioException.h"
#include "QmioSocket.h"
#include "SockeReadWork.h"

namespace {

const int kSelectSeconds = 2;
const int kIdleSleepMs = 500;
// The select thread leaves within one select time-out plus one idle sleep.
const int kSelectThreadEndMs = 2500;
const int kThreadObjectIdleMs = 2000;

}  // namespace

void QmioSocketPool::ServedSockets::Add(QmioSocket* socket) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_shutDown) shutdown(socket->GetSocket(), SHUT_RDWR);
  m_sockets.insert(socket);
}

void QmioSocketPool::ServedSockets::Remove(QmioSocket* socket) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_sockets.erase(socket);
}

void QmioSocketPool::ServedSockets::ShutdownAll() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_shutDown = true;
  for (QmioSocket* socket : m_sockets) shutdown(socket->GetSocket(), SHUT_RDWR);
}

QmioSocketPool::QmioSocketPool() : m_served(std::make_shared<ServedSockets>()) {
  FD_ZERO(&m_readSet);
  if (pipe2(m_wakePipe, O_CLOEXEC | O_NONBLOCK) != 0 || !CanSelect(m_wakePipe[0])) {
    // Without the pipe the select thread still stops, after its time-out.
    for (int& fd : m_wakePipe) {
      if (fd >= 0) close(fd);
      fd = -1;
    }
  }
}

QmioSocketPool::~QmioSocketPool() {
  if (m_running) Stop(2000);
  DeleteWaitingSockets();
  for (int fd : m_wakePipe) {
    if (fd >= 0) close(fd);
  }
}

bool QmioSocketPool::CanSelect(int descriptor) {
  return descriptor >= 0 && descriptor < FD_SETSIZE;
}

bool QmioSocketPool::Initialize(int socketLimit, int threadCount) {
  m_workers.Initialize(static_cast<unsigned int>(std::max(threadCount, 0)));
  m_socketLimit = socketLimit;
  m_finished.Reset();
  m_selectThread.Run(this);
  m_running = true;
  return true;
}

int QmioSocketPool::AddSocket(QmioSocket* socket) {
  const int locked = m_lock.Lock();
  if (locked != 0) return locked;
  if (static_cast<int>(m_sockets.size()) >= m_socketLimit) {
    m_lock.Unlock();
    throw QmioException("SocketPool", __FILE__, __LINE__, "Too Many Sockets");
  }
  m_sockets.push_back(socket);
  m_lock.Unlock();
  // Watch the new socket now rather than after the current select.
  Wake();
  return 0;
}

QmioSocket* QmioSocketPool::RemoveSocket(QmioSocket* socket) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  m_sockets.remove(socket);
  if (socket != nullptr && CanSelect(socket->GetSocket())) FD_CLR(socket->GetSocket(), &m_readSet);
  return socket;
}

bool QmioSocketPool::HaveAvailableSpot() {
  if (m_lock.Lock() != 0) return false;
  // At most the limit, where AddSocket refuses at the limit: kept so.
  const bool spot = static_cast<int>(m_sockets.size()) <= m_socketLimit;
  m_lock.Unlock();
  return spot;
}

std::size_t QmioSocketPool::WaitingCount() {
  QmconCriticalSection guard(&m_lock, true, true, false);
  return m_sockets.size();
}

bool QmioSocketPool::Stop(int timeoutMs) {
  if (m_running) {
    {
      // Set under the lock: no hand-over happens after this point.
      QmconCriticalSection guard(&m_lock, true, true, false);
      m_stopping = true;
    }
    Wake();
    // Served connections are ended first, so their workers finish instead of
    // being killed by the worker pool's Stop.
    m_served->ShutdownAll();
    m_workers.Stop(timeoutMs);
    WaitForSelectThreadEnd();
    m_running = false;
  }
  DeleteWaitingSockets();
  return true;
}

void QmioSocketPool::WaitForSelectThreadEnd() {
  m_finished.Wait(kSelectThreadEndMs);
  // The thread object is written once more after the loop; wait for that so
  // the pool may be destroyed right after Stop.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kThreadObjectIdleMs);
  while (!pthread_equal(m_selectThread.GetThreadID(), QmconThread::kNoThread) &&
         std::chrono::steady_clock::now() < deadline) {
    Qmsleep(1);
  }
}

void QmioSocketPool::DeleteWaitingSockets() {
  if (m_lock.Lock() != 0) return;
  for (QmioSocket* socket : m_sockets) delete socket;
  m_sockets.clear();
  FD_ZERO(&m_readSet);
  m_lock.Unlock();
}

void QmioSocketPool::DoWork(void* /*data*/) {
  try {
    for (;;) {
      if (m_stopping.load()) break;
      const int highest = BuildSelectList();
      if (highest <= 0) {
        IdleSleep();
        continue;
      }
      if (!SelectOnce(highest)) break;
    }
  } catch (const QmException&) {
    // An event or lock failure ends the select thread, as a failed select does.
  }
  m_finished.Broadcast();
}

// Nothing to watch: sleeps up to 500 ms, cut short by Wake() through the
// wake pipe. (The event's timed wait counts the part of a time-out below one
// second in microseconds, so waiting on it would wake every half millisecond.)
// Without the pipe, poll ignores the negative descriptor and only sleeps.
void QmioSocketPool::IdleSleep() {
  pollfd wake{m_wakePipe[0], POLLIN, 0};
  if (poll(&wake, 1, kIdleSleepMs) > 0) DrainWakePipe();
}

bool QmioSocketPool::SelectOnce(int highest) {
  fd_set ready;
  {
    QmconCriticalSection guard(&m_lock, true, true, false);
    ready = m_readSet;
  }
  int top = highest;
  if (m_wakePipe[0] >= 0) {
    FD_SET(m_wakePipe[0], &ready);
    top = std::max(top, m_wakePipe[0]);
  }
  // The time value is renewed for every pass: select leaves the time that
  // was left in it, so a reused value would turn into busy polling.
  timeval limit;
  limit.tv_sec = kSelectSeconds;
  limit.tv_usec = 0;
  const int rc = select(top + 1, &ready, nullptr, nullptr, &limit);
  if (rc < 0) {
    // An interrupted wait, or a socket closed under it, is simply rebuilt.
    return errno == EINTR || errno == EBADF;
  }
  if (rc == 0) return true;
  if (m_wakePipe[0] >= 0 && FD_ISSET(m_wakePipe[0], &ready)) {
    DrainWakePipe();
    FD_CLR(m_wakePipe[0], &ready);
  }
  {
    QmconCriticalSection guard(&m_lock, true, true, false);
    m_readSet = ready;
  }
  ReadSockets();
  return true;
}

int QmioSocketPool::BuildSelectList() {
  if (m_lock.Lock() != 0) return -1;
  FD_ZERO(&m_readSet);
  int highest = -1;
  for (auto it = m_sockets.begin(); it != m_sockets.end();) {
    QmioSocket* socket = *it;
    const int fd = socket->GetSocket();
    if (CanSelect(fd)) {
      FD_SET(fd, &m_readSet);
      highest = std::max(highest, fd);
      ++it;
    } else if (m_stopping.load()) {
      ++it;  // deleted by Stop
    } else {
      // select cannot watch it: a worker serves it at once (its reads fail
      // and the connection is closed) rather than leaving it waiting for ever.
      it = m_sockets.erase(it);
      HandOver(socket);
    }
  }
  m_lock.Unlock();
  return highest;
}

void QmioSocketPool::ReadSockets() {
  QmconCriticalSection guard(&m_lock, true, true, false);
  if (m_stopping.load()) return;
  for (auto it = m_sockets.begin(); it != m_sockets.end();) {
    QmioSocket* socket = *it;
    const int fd = socket->GetSocket();
    if (!CanSelect(fd) || !FD_ISSET(fd, &m_readSet)) {
      ++it;
      continue;
    }
    FD_CLR(fd, &m_readSet);
    it = m_sockets.erase(it);
    HandOver(socket);
  }
}

void QmioSocketPool::HandOver(QmioSocket* socket) {
  SockeReadWork* work = new SockeReadWork(socket, m_served);
  try {
    m_workers.AddWork(work);
  } catch (const QmconException& e) {
    // A refused item was not queued; after a failed thread start it stays
    // queued for a worker that exists.
    if (e.GetMsg() == "Thread Pool Is Stopping") delete work;
  }
}

void QmioSocketPool::Wake() {
  if (m_wakePipe[1] >= 0) {
    const char byte = 1;
    // A full pipe already wakes the select thread.
    ssize_t ignored = write(m_wakePipe[1], &byte, 1);
    (void)ignored;
  }
}

void QmioSocketPool::DrainWakePipe() {
  char scratch[64];
  while (read(m_wakePipe[0], scratch, sizeof(scratch)) > 0) {
  }
}
