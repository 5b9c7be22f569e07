// The plug-in's two entry points: the host finds them by their unmangled
// names and gets the one process-wide driver object through them.

#include "QmOAPDriver.h"

#define QM_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The host calls both entry points from one thread, so no lock guards this.
QmProtocolDriverInterface* g_driver = nullptr;

}  // namespace

QM_PLUGIN_EXPORT QmProtocolDriverInterface* GetDriverInstance() {
  if (g_driver == nullptr) g_driver = new QmOAPDriver();
  return g_driver;
}

QM_PLUGIN_EXPORT void ReleaseDriverInstance(QmProtocolDriverInterface* driver) {
  if (driver == nullptr || driver != g_driver) return;
  delete g_driver;
  g_driver = nullptr;
}
