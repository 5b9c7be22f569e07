#include "OAPDeviceRegistrar.h"

#include <mutex>

#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPMemoryMessageStore.h"
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

OAPDeviceRegistrar::OAPDeviceRegistrar() : m_store(std::make_shared<OAPMemoryMessageStore>()) {}

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

OAPDeviceRegistrar::Device OAPDeviceRegistrar::GetDevice(const std::string& address, bool create) {
  OAPTracer trace(m_logger.load(), kSource, __LINE__, "OAPDeviceRegistrar::GetDevice", kFalse);
  Device device = FindOrCreate(address, create);
  trace.SetResult(OAPTracer::TrueFalse(device != nullptr));
  return device;
}

OAPDeviceRegistrar::Device OAPDeviceRegistrar::FindOrCreate(const std::string& address,
                                                            bool create) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  auto found = m_devices.find(address);
  if (found != m_devices.end()) return found->second;
  if (!create) return nullptr;
  auto device = std::make_shared<OAPDeviceController>(address, m_store);
  device->SetClient(m_client);
  m_devices.emplace(address, device);
  return device;
}

OAPDeviceRegistrar::Device OAPDeviceRegistrar::GetDevice(const std::string& address,
                                                         uint32_t trackingNumber) {
  OAPTracer trace(m_logger.load(), kSource, __LINE__, "OAPDeviceRegistrar::GetDevice", kFalse);
  Device device = FindForMessage(address, trackingNumber);
  trace.SetResult(OAPTracer::TrueFalse(device != nullptr));
  return device;
}

OAPDeviceRegistrar::Device OAPDeviceRegistrar::FindForMessage(const std::string& address,
                                                              uint32_t trackingNumber) {
  Device exact = FindOrCreate(address, false);
  if (exact != nullptr) return exact;
  // Status and answer queries name the handset without its server's port
  // (the controller's key); messages are sent with it.
  const std::string sentTo = AddressOf(trackingNumber);
  if (!sentTo.empty() && OAPDeviceController::KeyOf(sentTo) == address) {
    return FindOrCreate(sentTo, true);
  }
  QmconCriticalSection guard(&m_lock, true, true, false);
  for (const auto& entry : m_devices) {
    if (entry.second->key == address) return entry.second;
  }
  return nullptr;
}

OAPDeviceRegistrar::Device OAPDeviceRegistrar::GetDeviceByTrackingID(uint32_t trackingNumber) {
  OAPTracer trace(m_logger.load(), kSource, __LINE__, "OAPDeviceRegistrar::GetDeviceByTrackingID",
                  kFalse);
  const std::string sentTo = AddressOf(trackingNumber);
  Device device = sentTo.empty() ? nullptr : FindOrCreate(sentTo, true);
  trace.SetResult(OAPTracer::TrueFalse(device != nullptr));
  return device;
}

std::string OAPDeviceRegistrar::AddressOf(uint32_t trackingNumber) {
  OAPMessageStore::Message message;
  return GetStore()->Find(trackingNumber, &message) ? message.address : std::string();
}

void OAPDeviceRegistrar::AttachClient(const std::weak_ptr<OAPClient>& client) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  m_client = client;
  for (const auto& entry : m_devices) entry.second->SetClient(client);
}

void OAPDeviceRegistrar::DetachClient(const OAPClient* client) {
  QmLogInterface* logger = client->GetLogger();
  m_logger.compare_exchange_strong(logger, nullptr);
  QmconCriticalSection guard(&m_lock, true, true, false);
  // Controllers hold their client weakly: a client that is gone is gone for
  // them as well.
  const std::shared_ptr<OAPClient> current = m_client.lock();
  if (current == nullptr || current.get() == client) m_client.reset();
}

void OAPDeviceRegistrar::SetStore(std::shared_ptr<OAPMessageStore> store) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  m_store = std::move(store);
  for (const auto& entry : m_devices) entry.second->SetStore(m_store);
}

std::shared_ptr<OAPMessageStore> OAPDeviceRegistrar::GetStore() {
  QmconCriticalSection guard(&m_lock, true, true, false);
  return m_store;
}

void OAPDeviceRegistrar::Clear() {
  std::map<std::string, Device> devices;
  std::shared_ptr<OAPMessageStore> store = std::make_shared<OAPMemoryMessageStore>();
  {
    QmconCriticalSection guard(&m_lock, true, true, false);
    devices.swap(m_devices);
    m_store.swap(store);
    m_client.reset();
    m_logger.store(nullptr);
  }
  // The controllers and the store are let go outside the lock.
}
