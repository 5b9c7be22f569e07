#include "QmDriverLoader.h"

#include <dlfcn.h>

namespace {

const char kGetInstanceName[] = "GetDriverInstance";
const char kReleaseInstanceName[] = "ReleaseDriverInstance";

std::string LastDlError() {
  const char* text = dlerror();
  return text != nullptr ? text : "unknown error";
}

}  // namespace

QmDriverLoader::~QmDriverLoader() {
  Unload();
}

bool QmDriverLoader::Load(const std::string& path) {
  Unload();
  m_error.clear();
  m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (m_handle == nullptr) {
    m_error = "Cannot load driver library '" + path + "': " + LastDlError();
    return false;
  }
  m_getInstance = reinterpret_cast<GetInstanceFn>(dlsym(m_handle, kGetInstanceName));
  m_releaseInstance = reinterpret_cast<ReleaseInstanceFn>(dlsym(m_handle, kReleaseInstanceName));
  const char* missing = m_getInstance == nullptr       ? kGetInstanceName
                        : m_releaseInstance == nullptr ? kReleaseInstanceName
                                                       : nullptr;
  if (missing != nullptr) {
    m_error = "Driver library '" + path + "' does not export '" + missing + "'";
    Unload();
    return false;
  }
  return true;
}

void QmDriverLoader::Unload() {
  if (m_handle != nullptr) dlclose(m_handle);
  m_handle = nullptr;
  m_getInstance = nullptr;
  m_releaseInstance = nullptr;
}

QmProtocolDriverInterface* QmDriverLoader::GetDriverInstance() {
  return m_getInstance != nullptr ? m_getInstance() : nullptr;
}

void QmDriverLoader::ReleaseDriverInstance(QmProtocolDriverInterface* driver) {
  if (m_releaseInstance != nullptr) m_releaseInstance(driver);
}
