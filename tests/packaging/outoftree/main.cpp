// Loads the installed driver plug-in the way a host does and exercises the
// installed static runtime (XML over expat, the log database over SQLite),
// printing one "key: value" line per fact.

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "QmLogSQLiteProcessor.h"
#include "QmProtocolDriverInterface.h"
#include "XmlReaderWriter.h"

namespace {

using GetDriver = QmProtocolDriverInterface* (*)();
using ReleaseDriver = void (*)(QmProtocolDriverInterface*);

int LoadDriver(const char* path) {
  void* plugin = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::printf("error: %s\n", dlerror());
    return 1;
  }
  auto get = reinterpret_cast<GetDriver>(dlsym(plugin, "GetDriverInstance"));
  auto release = reinterpret_cast<ReleaseDriver>(dlsym(plugin, "ReleaseDriverInstance"));
  if (get == nullptr || release == nullptr) {
    std::printf("error: entry points missing in %s\n", path);
    return 1;
  }
  QmProtocolDriverInterface* driver = get();
  if (driver == nullptr) {
    std::printf("error: no driver instance\n");
    return 1;
  }
  std::printf("driver name: %s\n", driver->GetName());
  std::printf("driver protocol: %s\n", driver->GetProtocolName());
  release(driver);
  std::printf("driver released\n");
  return 0;
}

std::string XmlRootName() {
  char document[] = "<probe kind=\"outoftree\"/>";
  XmlReaderWriter xml;
  if (!xml.readFrom(document, static_cast<unsigned>(std::strlen(document)))) return "(unparsed)";
  return xml.getRootNode().name();
}

size_t LogDatabaseRows() {
  QmLogSQLiteProcessor db(":memory:", true);
  db.writeLogRecord("probe", "one", 1, 3, "main.cpp", 1);
  db.writeLogRecord("probe", "two", 2, 4, "main.cpp", 2);
  QmLogDBProcessorInterface::EntrySet rows;
  db.readLogRecord(rows, "probe", QmLogDBProcessorInterface::ReadLogFilter());
  return rows.size();
}

}  // namespace

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : QM_DRIVER_PATH;
  std::printf("package version: %s\n", QM_PACKAGE_VERSION);
  std::printf("driver path: %s\n", path);
  std::printf("runtime xml root: %s\n", XmlRootName().c_str());
  std::printf("runtime log rows: %zu\n", LogDatabaseRows());
  return LoadDriver(path);
}
