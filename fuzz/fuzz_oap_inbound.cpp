// Hands arbitrary payloads to the inbound connection handler, as the driver's
// listener would, against a registry that tracks a few messages. No network:
// the tracked messages have no body and no client, so nothing is echoed.
#include <cstddef>
#include <cstdint>
#include <string>

#include "OAPConnectionHandler.h"
#include "OAPDeviceController.h"
#include "OAPDeviceRegistrar.h"

namespace {

const char kDevice[] = "1234@127.0.0.1:7000";
const uint32_t kFirstTracked = 0x1a0000;
const int kTracked = 4;

OAPDeviceController* TrackedDevice() {
  static const OAPDeviceRegistrar::Device device = [] {
    OAPDeviceRegistrar::Device created =
        OAPDeviceRegistrar::GetInstance()->GetDevice(kDevice, true);
    // Asking for the replies of an unknown number creates its (empty) status.
    for (int i = 0; i < kTracked; ++i) created->QueryResponse(kDevice, kFirstTracked + i);
    return created;
  }();
  return device.get();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OAPDeviceController* device = TrackedDevice();
  OAPConnectionHandler handler(nullptr);
  handler.OnData(std::string(reinterpret_cast<const char*>(data), size));
  for (int i = 0; i < kTracked; ++i) device->QueryResponse(kDevice, kFirstTracked + i);
  return 0;
}
