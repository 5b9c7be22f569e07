#include "OAPDeviceRegistrar.h"

#include <mutex>

#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPTracer.h"
#include "QmconCriticalSection.h"

namespace {

const char kSource[] = "messenger_drivers/oap/src/OAPDeviceRegistrar";
const char kFalse[] = "FALSE";

// Guards creation and release of the instance.
std::mutex& InstanceMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

std::unique_ptr<OAPDeviceRegistrar> OAPDeviceRegistrar::m_pobjMySelf;

OAPDeviceRegistrar::~OAPDeviceRegistrar() = default;

OAPDeviceRegistrar* OAPDeviceRegistrar::GetInstance() {
  OAPDeviceRegistrar* instance = nullptr;
  {
    std::lock_guard<std::mutex> guard(InstanceMutex());
    if (m_pobjMySelf == nullptr) m_pobjMySelf.reset(new OAPDeviceRegistrar());
    instance = m_pobjMySelf.get();
  }
  OAPTracer trace(instance->m_logger.load(), kSource, __LINE__, "OAPDeviceRegistrar::GetInstance");
  return instance;
}

void OAPDeviceRegistrar::Release() {
  std::lock_guard<std::mutex> guard(InstanceMutex());
  m_pobjMySelf.reset();
}

OAPDeviceController* OAPDeviceRegistrar::GetDevice(const std::string& address, bool create) {
  OAPTracer trace(m_logger.load(), kSource, __LINE__, "OAPDeviceRegistrar::GetDevice", kFalse);
  OAPDeviceController* device = FindOrCreate(address, create);
  trace.SetResult(OAPTracer::TrueFalse(device != nullptr));
  return device;
}

OAPDeviceController* OAPDeviceRegistrar::FindOrCreate(const std::string& address, bool create) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  auto found = m_devices.find(address);
  if (found != m_devices.end()) return found->second.get();
  if (!create) return nullptr;
  auto inserted = m_devices.emplace(address, std::make_unique<OAPDeviceController>(address));
  return inserted.first->second.get();
}

OAPDeviceController* OAPDeviceRegistrar::GetDevice(const std::string& address,
                                                   uint32_t trackingNumber) {
  OAPTracer trace(m_logger.load(), kSource, __LINE__, "OAPDeviceRegistrar::GetDevice", kFalse);
  OAPDeviceController* device = FindForMessage(address, trackingNumber);
  trace.SetResult(OAPTracer::TrueFalse(device != nullptr));
  return device;
}

OAPDeviceController* OAPDeviceRegistrar::FindForMessage(const std::string& address,
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
  OAPTracer trace(m_logger.load(), kSource, __LINE__, "OAPDeviceRegistrar::GetDeviceByTrackingID",
                  kFalse);
  OAPDeviceController* device = nullptr;
  {
    QmconCriticalSection guard(&m_lock, true, true, false);
    for (const auto& entry : m_devices) {
      if (entry.second->HasStatus(trackingNumber)) {
        device = entry.second.get();
        break;
      }
    }
  }
  trace.SetResult(OAPTracer::TrueFalse(device != nullptr));
  return device;
}

void OAPDeviceRegistrar::DetachClient(OAPClient* client) {
  QmLogInterface* logger = client->GetLogger();
  m_logger.compare_exchange_strong(logger, nullptr);
  QmconCriticalSection guard(&m_lock, true, true, false);
  for (const auto& entry : m_devices) {
    entry.second->ForgetClient(client);
  }
}
