#ifndef QM_OAP_OAPDEVICEREGISTRAR_H
#define QM_OAP_OAPDEVICEREGISTRAR_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "QmconLock.h"

class OAPClient;
class OAPDeviceController;
class OAPMessageStore;
class QmLogInterface;

// The process-wide registry of device controllers, keyed by device address,
// and the message store they share. A controller is made on first use, also
// for a message the store knows from before a restart of the host. The
// registry shares its controllers with the callers it hands them to, so a
// controller in use stays valid while the registry forgets it.
//
// Safe for concurrent use by the host's threads and the listener's workers.
// Traces through the logger set with SetLogger (not owned).
class OAPDeviceRegistrar {
 public:
  using Device = std::shared_ptr<OAPDeviceController>;

  ~OAPDeviceRegistrar();
  OAPDeviceRegistrar(const OAPDeviceRegistrar&) = delete;
  OAPDeviceRegistrar& operator=(const OAPDeviceRegistrar&) = delete;

  // The one instance, created on first use with a store in memory.
  static OAPDeviceRegistrar* GetInstance();
  // Frees the instance (process end, tests). Nothing may use the instance
  // any more when this is called.
  static void Release();

  // The controller registered under exactly this address; with `create` a new
  // one is registered when there is none.
  Device GetDevice(const std::string& address, bool create);
  // For a query about one message: the controller registered under exactly
  // this address, else, for an address without port (handset "@" host), the
  // controller the message was sent through when it has that key (a handset
  // may be reached through several servers on one host), else the first of
  // that key.
  Device GetDevice(const std::string& address, uint32_t trackingNumber);
  // The controller of the device the message was sent to; null when the
  // store does not know the number.
  Device GetDeviceByTrackingID(uint32_t trackingNumber);

  // The client through which every controller dispatches from now on.
  void AttachClient(const std::weak_ptr<OAPClient>& client);
  // Forgets the client as the one for new controllers, and its logger.
  void DetachClient(const OAPClient* client);
  // The store of every controller from now on.
  void SetStore(std::shared_ptr<OAPMessageStore> store);
  std::shared_ptr<OAPMessageStore> GetStore();
  // Forgets every controller, the client and the logger, and starts again
  // with an empty store in memory. Controllers in use stay valid for their
  // users.
  void Clear();
  // The logger the registry traces through; null for none.
  void SetLogger(QmLogInterface* logger) { m_logger.store(logger); }

 private:
  OAPDeviceRegistrar();
  // The lookups behind the two GetDevice overloads.
  Device FindOrCreate(const std::string& address, bool create);
  Device FindForMessage(const std::string& address, uint32_t trackingNumber);
  // The address the store knows the message by; empty when it is unknown.
  std::string AddressOf(uint32_t trackingNumber);

  static std::unique_ptr<OAPDeviceRegistrar> m_pobjMySelf;

  std::atomic<QmLogInterface*> m_logger{nullptr};
  QmconLock m_lock;
  std::map<std::string, Device> m_devices;
  std::shared_ptr<OAPMessageStore> m_store;
  std::weak_ptr<OAPClient> m_client;
};

#endif
