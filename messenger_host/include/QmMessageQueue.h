#ifndef QM_HOST_QMMESSAGEQUEUE_H
#define QM_HOST_QMMESSAGEQUEUE_H

#include <deque>

#include "QmconCriticalSection.h"

class QmMessageFile;

// The host's queue of jobs handed back by a driver. Producers and the host's
// consumer both hold Lock around every access to Jobs.
struct QmMessageQueue {
  std::deque<QmMessageFile*> Jobs;
  QmconCriticalSection Lock;
};

#endif
