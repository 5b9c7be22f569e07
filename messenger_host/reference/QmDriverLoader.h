#ifndef QM_HOST_REFERENCE_QMDRIVERLOADER_H
#define QM_HOST_REFERENCE_QMDRIVERLOADER_H

#include <string>

#include "QmProtocolDriverInterface.h"

// Loads a driver plug-in and resolves its two entry points. The loader owns
// the library handle; the driver object belongs to the plug-in and is given
// back with ReleaseDriverInstance. The library stays mapped for the life of
// the process (threads a driver started may still be winding down when the
// loader goes away), so unloading only drops the handle.
class QmDriverLoader {
 public:
  using GetInstanceFn = QmProtocolDriverInterface* (*)();
  using ReleaseInstanceFn = void (*)(QmProtocolDriverInterface*);

  QmDriverLoader() = default;
  ~QmDriverLoader();
  QmDriverLoader(const QmDriverLoader&) = delete;
  QmDriverLoader& operator=(const QmDriverLoader&) = delete;

  // Opens the library and resolves both entry points. On failure returns
  // false and GetError() says which file or symbol was at fault.
  bool Load(const std::string& path);
  void Unload();
  bool IsLoaded() const { return m_handle != nullptr; }
  const std::string& GetError() const { return m_error; }

  // Null when no library is loaded.
  QmProtocolDriverInterface* GetDriverInstance();
  void ReleaseDriverInstance(QmProtocolDriverInterface* driver);

 private:
  void* m_handle = nullptr;
  GetInstanceFn m_getInstance = nullptr;
  ReleaseInstanceFn m_releaseInstance = nullptr;
  std::string m_error;
};

#endif
