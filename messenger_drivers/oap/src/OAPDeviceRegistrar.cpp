#include "OAPDeviceRegistrar.h"

#include <mutex>

#include "OAPDeviceController.h"
#include "QmconCriticalSection.h"

namespace {

// Guards creation and release of the instance.
std::mutex& InstanceMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

std::unique_ptr<OAPDeviceRegistrar> OAPDeviceRegistrar::m_pobjMySelf;

OAPDeviceRegistrar::~OAPDeviceRegistrar() = default;

OAPDeviceRegistrar* OAPDeviceRegistrar::GetInstance() {
  std::lock_guard<std::mutex> guard(InstanceMutex());
  if (m_pobjMySelf == nullptr) m_pobjMySelf.reset(new OAPDeviceRegistrar());
  return m_pobjMySelf.get();
}

void OAPDeviceRegistrar::Release() {
  std::lock_guard<std::mutex> guard(InstanceMutex());
  m_pobjMySelf.reset();
}

OAPDeviceController* OAPDeviceRegistrar::GetDevice(const std::string& address, bool create) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  auto found = m_devices.find(address);
  if (found != m_devices.end()) return found->second.get();
  if (!create) return nullptr;
  auto inserted = m_devices.emplace(address, std::make_unique<OAPDeviceController>(address));
  return inserted.first->second.get();
}

OAPDeviceController* OAPDeviceRegistrar::GetDevice(const std::string& address,
                                                   uint32_t trackingNumber) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  auto found = m_devices.find(address);
  if (found != m_devices.end()) return found->second.get();
  // Status and answer queries name the handset without its server's port
  // (the controller's key); messages register it with the port.
  OAPDeviceController* first = nullptr;
  for (const auto& entry : m_devices) {
    if (entry.second->key != address) continue;
    if (entry.second->HasStatus(trackingNumber)) return entry.second.get();
    if (first == nullptr) first = entry.second.get();
  }
  return first;
}

OAPDeviceController* OAPDeviceRegistrar::GetDeviceByTrackingID(uint32_t trackingNumber) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  for (const auto& entry : m_devices) {
    if (entry.second->HasStatus(trackingNumber)) return entry.second.get();
  }
  return nullptr;
}

void OAPDeviceRegistrar::DetachClient(OAPClient* client) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  for (const auto& entry : m_devices) {
    entry.second->ForgetClient(client);
  }
}
