// Reads arbitrary bytes as an INI file, looks a few things up and writes it back.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "IniReaderWriter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = "/tmp/qm_fuzz_ini_" + std::to_string(getpid()) + ".ini";
  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) return 0;
  std::fwrite(data, 1, size, file);
  std::fclose(file);

  IniReaderWriter ini(path, false, false, false);
  if (ini.read()) {
    ini.getKeyValue("[main]", "writer");
    ini.getKey("[common]", 0);
    ini.isKeyPresent("[main]", "level");
    std::string out = path + ".out";
    ini.write(&out);
    std::remove(out.c_str());
  }
  return 0;
}
