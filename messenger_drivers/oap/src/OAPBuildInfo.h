#ifndef QM_OAP_OAPBUILDINFO_H
#define QM_OAP_OAPBUILDINFO_H

#include <string>

// Which build of the plug-in is running: the project version it was built
// as and the build id the linker wrote into the shared object (the same id
// `readelf -n` shows and debug symbols are found by). Stateless.
class OAPBuildInfo {
 public:
  // "OAP driver plug-in 1.0.0, build id 5f1c...", for the log.
  static std::string Describe();
  // Lower-case hexadecimal; "none" when the object carries no build id.
  static std::string BuildId();
};

#endif
