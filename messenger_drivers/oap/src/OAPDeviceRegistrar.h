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
class QmLogInterface;

// The process-wide registry of device controllers, keyed by device address.
// It owns its controllers; a controller handed out stays valid until Release.
// Safe for concurrent use by the host's threads and the listener's workers.
// Traces through the logger of the client that set it (not owned).
class OAPDeviceRegistrar {
 public:
  ~OAPDeviceRegistrar();
  OAPDeviceRegistrar(const OAPDeviceRegistrar&) = delete;
  OAPDeviceRegistrar& operator=(const OAPDeviceRegistrar&) = delete;

  // The one instance, created on first use.
  static OAPDeviceRegistrar* GetInstance();
  // Frees the instance and every controller (process end, tests). Nothing may
  // use a controller or the instance any more when this is called.
  static void Release();

  // The controller registered under exactly this address; with `create` a new
  // one is registered when there is none.
  OAPDeviceController* GetDevice(const std::string& address, bool create);
  // For a query about one message: the controller registered under exactly
  // this address, else, for an address without port (handset "@" host), the
  // controller of that key that knows the tracking number (a handset may be
  // reached through several servers on one host), else the first of that key.
  OAPDeviceController* GetDevice(const std::string& address, uint32_t trackingNumber);
  // The first controller, in address order, that knows the tracking number.
  OAPDeviceController* GetDeviceByTrackingID(uint32_t trackingNumber);
  // Clears the client pointer of every controller that uses `client`, so that
  // no controller dispatches through a client that is going away, and forgets
  // the client's logger.
  void DetachClient(OAPClient* client);
  // The logger the registry traces through; null for none.
  void SetLogger(QmLogInterface* logger) { m_logger.store(logger); }

 private:
  OAPDeviceRegistrar() = default;
  // The lookups behind the two GetDevice overloads.
  OAPDeviceController* FindOrCreate(const std::string& address, bool create);
  OAPDeviceController* FindForMessage(const std::string& address, uint32_t trackingNumber);

  static std::unique_ptr<OAPDeviceRegistrar> m_pobjMySelf;

  std::atomic<QmLogInterface*> m_logger{nullptr};
  QmconLock m_lock;
  std::map<std::string, std::unique_ptr<OAPDeviceController>> m_devices;
};

#endif
