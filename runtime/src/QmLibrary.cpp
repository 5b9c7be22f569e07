#include <pthread.h>

#include <string>

#include "QmconFunctions.h"
#include "QmconThread.h"
#include "QmioSocket.h"

namespace {

// Where the runtime's resources live, as named by the host at start-up.
std::string g_resourceDir;
pthread_once_t g_resourceOnce = PTHREAD_ONCE_INIT;
bool g_resourcesReady = false;

// Starts the thread and socket layers once for all callers naming a
// resource directory.
void InitialiseResources() {
  g_resourcesReady = InitialLib();
}

}  // namespace

bool InitialLib() {
  QmconThread::InitializeLibrary();
  return QmioSocket::InitialLibrary();
}

bool InitialLib(const std::string& resourceDir) {
  g_resourceDir = resourceDir;
  if (pthread_once(&g_resourceOnce, &InitialiseResources) != 0) return false;
  return g_resourcesReady;
}

void CloseLib() {
  QmconThread::CloseLibrary();
  QmioSocket::CloseLibrary();
}
