#include "QmioSocketPool.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "QmString.h"
#include "QmconException.h"
#include "QmconFunctions.h"
#include "QmconThreadPool.h"
#include "QmioException.h"
#include "QmioSocket.h"
#include "SockeReadWork.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* const kSource = "QmioSocketPool";
const char* const kPath = "SocketPool";
const int kDefaultIdleTimeoutMs = 30000;
// Connections that may wait on top of the socket limit: ones with data
// waiting for a worker, and new ones while none of those without data has
// had its grace time yet. Beyond that the listener waits (connections queue
// in the kernel) until there is room.
const std::size_t kQueueLimit = 64;
// Before it is closed to make room, a connection that has sent nothing yet
// has this long to send its first bytes; one that has sent documents before
// must have been quiet this long (a server pauses that long only between
// documents, if at all).
const int kNewGraceMs = 250;
const int kKeptGraceMs = 5000;
const int kWatchThreadEndMs = 2000;
const int kThreadObjectIdleMs = 2000;
const int kMinWorkerStopMs = 100;
// A worker loop with nothing to serve for this long ends (its thread then
// retires from the thread pool).
const int kWorkerIdleMs = 30000;
const uint64_t kWakeId = 0;
const int kEventBatch = 64;

bool IsReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

long MillisecondsBetween(Clock::time_point from, Clock::time_point to) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count());
}

}  // namespace

class QmioSocketPool::Core : public std::enable_shared_from_this<Core> {
 public:
  Core();
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  bool IsOpen() const { return m_epoll >= 0 && m_wake >= 0; }
  void Configure(int socketLimit, int threadCount);
  void SetLogger(QmLogInterface* logger) { m_logger = logger; }
  void SetIdleTimeout(int timeoutMs);

  // True when the socket was taken; false when `makeRoom` is set and no room
  // came within the time-out. Throws "Too Many Sockets" without `makeRoom`.
  bool Add(QmioSocket* socket, bool makeRoom, int timeoutMs);
  QmioSocket* Remove(QmioSocket* socket);
  std::size_t WaitingCount();
  bool HaveSpot();
  void Released(QmioSocket* socket, bool keep);
  // For a worker loop: the next ready connection, taken out to be served;
  // null when none came within the idle time or the pool stops.
  QmioSocket* Take();
  void LoopEnded();

  void WatchLoop();
  // Stopping in two halves, around the end of the watch thread.
  void BeginStop();
  void FinishStop(int timeoutMs);

 private:
  // A connection not being served. New and kept ones are watched in epoll
  // under `id` for their next data; ready ones have data and wait for a
  // worker. The list is in the order the connections started waiting.
  enum State {
    kNew,    // has sent nothing yet
    kKept,   // has been served and stays open for more
    kReady,  // has data
  };
  struct Waiting {
    QmioSocket* socket;
    uint64_t id;
    Clock::time_point since;
    State state;
  };
  // A connection the pool closes, and why (written after the lock is gone).
  struct Closing {
    enum Reason { kDone, kEvicted, kIdle } reason;
    QmioSocket* socket;
    long waitedMs;
  };
  using Closings = std::vector<Closing>;

  // How many connections may wait in all, with data or without.
  std::size_t Capacity() const;
  bool Fits(State state) const;
  std::size_t NewCount() const;
  void Enter(QmioSocket* socket, State state);
  void Unwatch(const Waiting& entry);
  // A connection became ready: wakes an idle worker loop or starts one.
  void Dispatch();
  void OnReadable(uint64_t id);
  bool EvictOldestIdle(Clock::time_point now, Closings& closing);
  bool EvictOldest(State state, Clock::time_point now, Closings& closing);
  void CloseExpired(Clock::time_point now, Closings& closing);
  Clock::time_point NextEvictable() const;
  int MillisecondsToNextExpiry(Clock::time_point now) const;
  void Wake();
  void DrainWake();
  void Flush(const Closings& closing);

  // Holds the pool lock; on release, wakes the idle loops that Dispatch
  // chose meanwhile. Waking them after the unlock spares each a wait for the
  // lock it would be woken into. Before waiting on a condition (which
  // releases the lock) the wake-ups are given at once.
  class Locked {
   public:
    explicit Locked(Core& core) : m_core(core), m_lock(core.m_mutex) {}
    ~Locked() {
      const std::size_t count = std::exchange(m_core.m_toNotify, 0);
      m_lock.unlock();
      for (std::size_t i = 0; i < count; ++i) m_core.m_work.notify_one();
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    // The lock, for a condition wait.
    std::unique_lock<std::mutex>& ForWait() {
      for (; m_core.m_toNotify > 0; --m_core.m_toNotify) m_core.m_work.notify_one();
      return m_lock;
    }

   private:
    Core& m_core;
    std::unique_lock<std::mutex> m_lock;
  };

  std::mutex m_mutex;
  std::condition_variable m_changed;  // room, served connections or stop
  std::list<Waiting> m_waiting;
  std::condition_variable m_work;  // a connection is ready, or the pool stops
  std::set<QmioSocket*> m_served;
  std::size_t m_loops = 0;      // worker loops running (at most m_threadCount)
  std::size_t m_idleLoops = 0;  // of them, waiting for a connection
  std::size_t m_wakeups = 0;    // wake-ups handed to idle loops, not yet taken
  std::size_t m_toNotify = 0;   // of them, still to be notified (see Locked)
  std::size_t m_socketLimit = 0;
  std::size_t m_threadCount = 1;
  int m_idleTimeoutMs = kDefaultIdleTimeoutMs;
  bool m_stopping = false;
  uint64_t m_nextId = kWakeId;
  std::atomic<QmLogInterface*> m_logger{nullptr};
  int m_epoll = -1;
  int m_wake = -1;
  QmconThreadPool m_workers;
};

QmioSocketPool::Core::Core() {
  m_epoll = epoll_create1(EPOLL_CLOEXEC);
  m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kWakeId;
  if (m_epoll >= 0 && m_wake >= 0 && epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_wake, &event) != 0) {
    close(m_wake);
    m_wake = -1;
  }
}

QmioSocketPool::Core::~Core() {
  for (const Waiting& entry : m_waiting) delete entry.socket;
  if (m_wake >= 0) close(m_wake);
  if (m_epoll >= 0) close(m_epoll);
}

void QmioSocketPool::Core::Configure(int socketLimit, int threadCount) {
  Locked lock(*this);
  m_socketLimit = static_cast<std::size_t>(std::max(socketLimit, 0));
  m_threadCount = static_cast<std::size_t>(std::max(threadCount, 1));
  m_workers.Initialize(static_cast<unsigned int>(m_threadCount));
}

void QmioSocketPool::Core::SetIdleTimeout(int timeoutMs) {
  {
    Locked lock(*this);
    m_idleTimeoutMs = std::max(timeoutMs, 0);
  }
  Wake();  // the watch thread's next deadline changes
}

bool QmioSocketPool::Core::Add(QmioSocket* socket, bool makeRoom, int timeoutMs) {
  const State state = IsReadable(socket->GetSocket()) ? kReady : kNew;
  const Clock::time_point deadline =
      Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
  Closings closing;
  bool taken = true;
  {
    Locked lock(*this);
    for (;;) {
      if (m_stopping) {
        closing.push_back({Closing::kDone, socket, 0});
        break;
      }
      // Data is there and a worker takes it at once: no need for room.
      if (state == kReady && (m_idleLoops > m_wakeups || m_loops < m_threadCount)) {
        Enter(socket, state);
        break;
      }
      if (Fits(state)) {
        Enter(socket, state);
        break;
      }
      if (!makeRoom) throw QmioException(kPath, __FILE__, __LINE__, "Too Many Sockets");
      const Clock::time_point now = Clock::now();
      if (EvictOldestIdle(now, closing)) continue;
      // Every connection waiting without data is still in its grace time:
      // this one waits beside them, up to the bound of all waiting ones.
      if (m_waiting.size() < Capacity()) {
        Enter(socket, state);
        break;
      }
      if (now >= deadline) {
        taken = false;
        break;
      }
      m_changed.wait_until(lock.ForWait(), std::min(deadline, NextEvictable()));
    }
  }
  Flush(closing);
  return taken;
}

QmioSocket* QmioSocketPool::Core::Remove(QmioSocket* socket) {
  Locked lock(*this);
  for (auto it = m_waiting.begin(); it != m_waiting.end();) {
    if (it->socket == socket) {
      Unwatch(*it);
      it = m_waiting.erase(it);
    } else {
      ++it;
    }
  }
  m_changed.notify_all();
  return socket;
}

std::size_t QmioSocketPool::Core::WaitingCount() {
  Locked lock(*this);
  return m_waiting.size();
}

bool QmioSocketPool::Core::HaveSpot() {
  Locked lock(*this);
  // At most the limit, where AddSocket refuses at the limit: kept so.
  return m_waiting.size() <= m_socketLimit;
}

void QmioSocketPool::Core::Released(QmioSocket* socket, bool keep) {
  Closings closing;
  {
    Locked lock(*this);
    m_served.erase(socket);
    if (keep && !m_stopping) {
      Enter(socket, kKept);
    } else {
      closing.push_back({Closing::kDone, socket, 0});
    }
    m_changed.notify_all();
  }
  Flush(closing);
}

std::size_t QmioSocketPool::Core::Capacity() const {
  return m_socketLimit + kQueueLimit;
}

bool QmioSocketPool::Core::Fits(State state) const {
  if (m_waiting.size() >= Capacity()) return false;
  return state != kNew || NewCount() < m_socketLimit;
}

std::size_t QmioSocketPool::Core::NewCount() const {
  return static_cast<std::size_t>(
      std::count_if(m_waiting.begin(), m_waiting.end(),
                    [](const Waiting& entry) { return entry.state == kNew; }));
}

void QmioSocketPool::Core::Enter(QmioSocket* socket, State state) {
  Waiting entry{socket, ++m_nextId, Clock::now(), state};
  if (state != kReady) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
    event.data.u64 = entry.id;
    // A socket that cannot be watched goes to a worker, whose read ends it.
    if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, socket->GetSocket(), &event) != 0) entry.state = kReady;
  }
  // The watch thread sleeps without a deadline while nothing is watched.
  const bool firstWatched = entry.state != kReady &&
                            std::all_of(m_waiting.begin(), m_waiting.end(),
                                        [](const Waiting& other) { return other.state == kReady; });
  m_waiting.push_back(entry);
  if (firstWatched) Wake();
  if (entry.state == kReady) Dispatch();
}

void QmioSocketPool::Core::Unwatch(const Waiting& entry) {
  if (entry.state != kReady) epoll_ctl(m_epoll, EPOLL_CTL_DEL, entry.socket->GetSocket(), nullptr);
}

void QmioSocketPool::Core::Dispatch() {
  if (m_stopping) return;
  if (m_idleLoops > m_wakeups) {
    ++m_wakeups;
    ++m_toNotify;
    return;
  }
  if (m_loops >= m_threadCount) return;  // a busy loop takes it when done
  ++m_loops;
  SockeReadWork* loop = new SockeReadWork(nullptr, shared_from_this());
  try {
    m_workers.AddWork(loop);
  } catch (const QmconException& e) {
    // A refused item was not queued; after a failed thread start it stays
    // queued for a worker that exists.
    if (e.GetMsg() == "Thread Pool Is Stopping") {
      --m_loops;
      delete loop;
    }
  }
}

QmioSocket* QmioSocketPool::Core::Take() {
  Locked lock(*this);
  while (!m_stopping) {
    auto it = std::find_if(m_waiting.begin(), m_waiting.end(),
                           [](const Waiting& entry) { return entry.state == kReady; });
    if (it != m_waiting.end()) {
      QmioSocket* socket = it->socket;
      m_waiting.erase(it);
      m_served.insert(socket);
      m_changed.notify_all();
      return socket;
    }
    ++m_idleLoops;
    const bool woken = m_work.wait_for(lock.ForWait(), std::chrono::milliseconds(kWorkerIdleMs),
                                       [this] { return m_wakeups > 0 || m_stopping; });
    --m_idleLoops;
    if (!woken) break;  // nothing for the idle time: the loop ends
    if (m_wakeups > 0) --m_wakeups;
  }
  return nullptr;
}

void QmioSocketPool::Core::LoopEnded() {
  Locked lock(*this);
  --m_loops;
  m_changed.notify_all();
  // A connection that became ready while this loop was leaving.
  const bool ready = std::any_of(m_waiting.begin(), m_waiting.end(),
                                 [](const Waiting& entry) { return entry.state == kReady; });
  if (ready && m_idleLoops <= m_wakeups) Dispatch();
}

void QmioSocketPool::Core::OnReadable(uint64_t id) {
  auto it = std::find_if(m_waiting.begin(), m_waiting.end(),
                         [id](const Waiting& entry) { return entry.id == id; });
  // An event for a connection that left meanwhile is stale.
  if (it == m_waiting.end() || it->state == kReady) return;
  Unwatch(*it);
  it->state = kReady;
  Dispatch();
}

bool QmioSocketPool::Core::EvictOldestIdle(Clock::time_point now, Closings& closing) {
  return EvictOldest(kNew, now, closing) || EvictOldest(kKept, now, closing);
}

bool QmioSocketPool::Core::EvictOldest(State state, Clock::time_point now, Closings& closing) {
  const auto grace = std::chrono::milliseconds(state == kNew ? kNewGraceMs : kKeptGraceMs);
  for (auto it = m_waiting.begin(); it != m_waiting.end(); ++it) {
    if (it->state != state) continue;
    if (now - it->since < grace) return false;  // the rest are younger still
    Unwatch(*it);
    if (IsReadable(it->socket->GetSocket())) {
      it->state = kReady;  // its data has just come
      Dispatch();
      continue;
    }
    closing.push_back({Closing::kEvicted, it->socket, MillisecondsBetween(it->since, now)});
    m_waiting.erase(it);
    return true;
  }
  return false;
}

void QmioSocketPool::Core::CloseExpired(Clock::time_point now, Closings& closing) {
  const auto idle = std::chrono::milliseconds(m_idleTimeoutMs);
  for (auto it = m_waiting.begin(); it != m_waiting.end();) {
    if (it->state == kReady) {
      ++it;
      continue;
    }
    if (now - it->since < idle) break;
    Unwatch(*it);
    closing.push_back({Closing::kIdle, it->socket, MillisecondsBetween(it->since, now)});
    it = m_waiting.erase(it);
  }
}

Clock::time_point QmioSocketPool::Core::NextEvictable() const {
  Clock::time_point next = Clock::time_point::max();
  for (State state : {kNew, kKept}) {
    auto it = std::find_if(m_waiting.begin(), m_waiting.end(),
                           [state](const Waiting& entry) { return entry.state == state; });
    const auto grace = std::chrono::milliseconds(state == kNew ? kNewGraceMs : kKeptGraceMs);
    if (it != m_waiting.end()) next = std::min(next, it->since + grace);
  }
  return next;
}

int QmioSocketPool::Core::MillisecondsToNextExpiry(Clock::time_point now) const {
  for (const Waiting& entry : m_waiting) {
    if (entry.state == kReady) continue;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        entry.since + std::chrono::milliseconds(m_idleTimeoutMs) - now);
    return static_cast<int>(std::max<long>(left.count(), 0));
  }
  return -1;
}

void QmioSocketPool::Core::WatchLoop() {
  epoll_event events[kEventBatch];
  for (;;) {
    int timeoutMs;
    {
      Locked lock(*this);
      if (m_stopping) return;
      timeoutMs = MillisecondsToNextExpiry(Clock::now());
    }
    const int count = epoll_wait(m_epoll, events, kEventBatch, timeoutMs);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      QM_LOG(m_logger.load(), Error, kSource,
             "Socket pool stops watching its connections: " + QmgetLastError());
      return;
    }
    Closings closing;
    {
      Locked lock(*this);
      if (m_stopping) return;
      for (int i = 0; i < count; ++i) {
        if (events[i].data.u64 == kWakeId) {
          DrainWake();
        } else {
          OnReadable(events[i].data.u64);
        }
      }
      CloseExpired(Clock::now(), closing);
      m_changed.notify_all();
    }
    Flush(closing);
  }
}

void QmioSocketPool::Core::BeginStop() {
  std::vector<QmioSocket*> waiting;
  {
    Locked lock(*this);
    m_stopping = true;
    for (const Waiting& entry : m_waiting) {
      Unwatch(entry);
      waiting.push_back(entry.socket);
    }
    m_waiting.clear();
    // Served connections end by themselves: their handlers' reads see the
    // shut-down socket.
    for (QmioSocket* socket : m_served) shutdown(socket->GetSocket(), SHUT_RDWR);
    m_changed.notify_all();
    m_work.notify_all();
  }
  Wake();
  for (QmioSocket* socket : waiting) delete socket;
}

void QmioSocketPool::Core::FinishStop(int timeoutMs) {
  const Clock::time_point deadline =
      Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
  {
    Locked lock(*this);
    m_changed.wait_until(lock.ForWait(), deadline, [this] { return m_loops == 0; });
  }
  const long left = MillisecondsBetween(Clock::now(), deadline);
  m_workers.Stop(static_cast<int>(std::max<long>(left, kMinWorkerStopMs)));
  // Items the workers never ran went with their sockets.
  Locked lock(*this);
  m_served.clear();
}

void QmioSocketPool::Core::Wake() {
  if (m_wake < 0) return;
  const uint64_t one = 1;
  // A counter at its limit already wakes the watch thread.
  ssize_t ignored = write(m_wake, &one, sizeof(one));
  (void)ignored;
}

void QmioSocketPool::Core::DrainWake() {
  uint64_t count = 0;
  ssize_t ignored = read(m_wake, &count, sizeof(count));
  (void)ignored;
}

void QmioSocketPool::Core::Flush(const Closings& closing) {
  QmLogInterface* logger = m_logger.load();
  for (const Closing& entry : closing) {
    const std::string address = entry.socket->GetRemoteAddress();
    if (entry.reason == Closing::kEvicted) {
      QM_LOG(logger, Warn, kSource,
             QmstringFormat("Connection with client [IP address '%s'] closed to make room: it "
                            "sent nothing in %ld ms.",
                            address.c_str(), entry.waitedMs));
    } else if (entry.reason == Closing::kIdle) {
      QM_LOG(logger, Info, kSource,
             QmstringFormat("Connection with client [IP address '%s'] closed after %ld ms "
                            "without data.",
                            address.c_str(), entry.waitedMs));
    }
    delete entry.socket;
  }
}

QmioSocketPool::QmioSocketPool() : m_core(std::make_shared<Core>()) {}

QmioSocketPool::~QmioSocketPool() {
  if (m_running) Stop(kWatchThreadEndMs);
}

bool QmioSocketPool::Initialize(int socketLimit, int threadCount) {
  if (!m_core->IsOpen()) {
    throw QmioException(kPath, __FILE__, __LINE__, "Socket Pool Create Failed", QmgetLastError());
  }
  m_core->Configure(socketLimit, threadCount);
  m_finished.Reset();
  m_watchThread.Run(this);
  m_running = true;
  return true;
}

void QmioSocketPool::SetLogger(QmLogInterface* logger) {
  m_core->SetLogger(logger);
}

void QmioSocketPool::SetIdleTimeout(int timeoutMs) {
  m_core->SetIdleTimeout(timeoutMs);
}

int QmioSocketPool::AddSocket(QmioSocket* socket) {
  m_core->Add(socket, false, 0);
  return 0;
}

bool QmioSocketPool::AddSocketMakingRoom(QmioSocket* socket, int timeoutMs) {
  return m_core->Add(socket, true, timeoutMs);
}

QmioSocket* QmioSocketPool::RemoveSocket(QmioSocket* socket) {
  return m_core->Remove(socket);
}

bool QmioSocketPool::HaveAvailableSpot() {
  return m_core->HaveSpot();
}

std::size_t QmioSocketPool::WaitingCount() {
  return m_core->WaitingCount();
}

bool QmioSocketPool::Stop(int timeoutMs) {
  m_core->BeginStop();
  if (m_running) {
    WaitForWatchThreadEnd();
    m_core->FinishStop(timeoutMs);
    m_running = false;
  }
  return true;
}

void QmioSocketPool::WaitForWatchThreadEnd() {
  m_finished.Wait(kWatchThreadEndMs);
  // The thread object is written once more after the loop; wait for that so
  // the pool may be destroyed right after Stop.
  const auto deadline = Clock::now() + std::chrono::milliseconds(kThreadObjectIdleMs);
  while (!pthread_equal(m_watchThread.GetThreadID(), QmconThread::kNoThread) &&
         Clock::now() < deadline) {
    Qmsleep(1);
  }
}

void QmioSocketPool::DoWork(void* /*data*/) {
  try {
    m_core->WatchLoop();
  } catch (const QmException&) {
    // An event or lock failure ends the watch thread.
  }
  m_finished.Broadcast();
}

void QmioSocketPool::Release(const std::shared_ptr<Core>& core, QmioSocket* socket, bool keep) {
  if (core != nullptr) {
    core->Released(socket, keep);
  } else {
    delete socket;
  }
}

QmioSocket* QmioSocketPool::TakeNext(const std::shared_ptr<Core>& core) {
  return core != nullptr ? core->Take() : nullptr;
}

void QmioSocketPool::WorkerEnded(const std::shared_ptr<Core>& core) {
  if (core != nullptr) core->LoopEnded();
}
