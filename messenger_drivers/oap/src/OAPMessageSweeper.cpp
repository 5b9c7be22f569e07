#include "OAPMessageSweeper.h"

#include <chrono>

#include "OAPMessageStore.h"
#include "QmLogInterface.h"
#include "QmString.h"

namespace {

const char kSource[] = "messenger_drivers/oap/src/OAPMessageSweeper";
const auto kPeriod = std::chrono::seconds(1);
// Messages removed in one step of the store; the store's lock is let go
// between steps.
const size_t kBatch = 256;

}  // namespace

OAPMessageSweeper::OAPMessageSweeper(std::shared_ptr<OAPMessageStore> store, int retentionMinutes,
                                     size_t limit, QmLogInterface* logger)
    : m_store(std::move(store)),
      m_retentionMinutes(retentionMinutes),
      m_limit(limit),
      m_logger(logger) {}

OAPMessageSweeper::~OAPMessageSweeper() {
  Stop();
}

void OAPMessageSweeper::Start() {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (m_thread.joinable()) return;
  m_stop = false;
  m_thread = std::thread(&OAPMessageSweeper::Run, this);
}

void OAPMessageSweeper::Stop() {
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_stop = true;
  }
  m_wake.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

void OAPMessageSweeper::Poke() {
  if (m_store->Count() <= m_limit + m_limit / 16) return;
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_due = true;
  }
  m_wake.notify_all();
}

void OAPMessageSweeper::Run() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_stop) {
    m_wake.wait_for(lock, kPeriod, [this] { return m_stop || m_due; });
    if (m_stop) break;
    m_due = false;
    lock.unlock();
    Sweep();
    lock.lock();
  }
}

size_t OAPMessageSweeper::Sweep() {
  const int64_t cutoff = OAPMessageStore::Now() - int64_t{60} * m_retentionMinutes;
  size_t total = 0;
  for (;;) {
    const size_t removed = m_store->Expire(cutoff, m_limit, kBatch);
    total += removed;
    if (removed < kBatch) break;
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_stop) break;
  }
  if (total > 0) {
    QM_LOG(m_logger, Info, kSource,
           QmstringFormat("Message store: removed %lu messages older than %d minutes or beyond "
                          "the limit of %lu.",
                          static_cast<unsigned long>(total), m_retentionMinutes,
                          static_cast<unsigned long>(m_limit)));
  }
  return total;
}
