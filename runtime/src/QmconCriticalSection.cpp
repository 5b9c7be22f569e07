#include "QmconCriticalSection.h"

QmconCriticalSection::QmconCriticalSection()
    : m_lock(new QmconLock()), m_ownsLock(true), m_unlockOnDestroy(false) {}

QmconCriticalSection::QmconCriticalSection(QmconLock* lock, bool lockNow, bool unlockOnDestroy,
                                           bool ownsLock)
    : m_lock(lock), m_ownsLock(ownsLock), m_unlockOnDestroy(unlockOnDestroy) {
  if (lockNow && m_lock != nullptr) m_lock->Lock();
}

QmconCriticalSection::~QmconCriticalSection() {
  if (m_lock != nullptr) {
    if (m_unlockOnDestroy) m_lock->Unlock();
    if (m_ownsLock) delete m_lock;
  }
  m_lock = nullptr;
}

bool QmconCriticalSection::Enter() {
  return m_lock->Lock() == 0;
}

bool QmconCriticalSection::Leave() {
  m_lock->Unlock();
  return true;
}
