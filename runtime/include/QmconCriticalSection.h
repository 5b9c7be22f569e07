#ifndef QM_RUNTIME_QMCONCRITICALSECTION_H
#define QM_RUNTIME_QMCONCRITICALSECTION_H

#include "QmconLock.h"

// Holder of a QmconLock. Depending on its flags it locks on construction,
// unlocks on destruction and owns (deletes) the lock. Also used as a scoped
// guard: QmconCriticalSection guard(&lock, true, true, false).
class QmconCriticalSection {
 public:
  QmconCriticalSection();  // owns a fresh lock, does not unlock on destroy
  QmconCriticalSection(QmconLock* lock, bool lockNow, bool unlockOnDestroy, bool ownsLock);
  ~QmconCriticalSection();
  QmconCriticalSection(const QmconCriticalSection&) = delete;
  QmconCriticalSection& operator=(const QmconCriticalSection&) = delete;

  bool Enter();
  bool Leave();
  QmconLock* GetLockObj() const { return m_lock; }

 private:
  QmconLock* m_lock;
  bool m_ownsLock;
  bool m_unlockOnDestroy;
};

#endif
