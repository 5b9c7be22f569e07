#include "QmconFunctions.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

unsigned int GetMyThreadID() {
  return static_cast<unsigned int>(pthread_self());
}

std::string QmgetLastError() {
  char buffer[1024] = {0};
  // The GNU strerror_r may return a static text instead of filling the buffer.
  const char* text = strerror_r(errno, buffer, sizeof(buffer) - 1);
  return text != nullptr ? std::string(text) : std::string(buffer);
}

void Qmsleep(int ms) {
  if (ms / 1000 > 0) sleep(static_cast<unsigned int>(ms / 1000));
  if (ms % 1000 > 0) usleep(static_cast<useconds_t>(ms % 1000) * 1000);
}

void QmsleepSec(int s) {
  sleep(static_cast<unsigned int>(s));
}
