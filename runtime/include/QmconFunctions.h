#ifndef QM_RUNTIME_QMCONFUNCTIONS_H
#define QM_RUNTIME_QMCONFUNCTIONS_H

#include <string>

// Process-wide helpers of the concurrency layer.

// The calling thread's pthread_self value, narrowed to 32 bits.
unsigned int GetMyThreadID();
// strerror_r text of the current errno.
std::string QmgetLastError();
// Sleeps whole seconds with sleep, then the remainder with usleep.
void Qmsleep(int ms);
void QmsleepSec(int s);

// Start and end of the runtime (thread and socket layers). Neither installs a
// signal handler nor changes any signal disposition of the process.
bool InitialLib();
bool InitialLib(const std::string& resourceDir);
void CloseLib();

#endif
