#include "OAPBuildInfo.h"

#include <elf.h>
#include <link.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

struct Search {
  uintptr_t address;  // an address inside the object searched for
  std::string id;
};

bool Contains(const dl_phdr_info* object, uintptr_t address) {
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[i];
    const uintptr_t start = object->dlpi_addr + segment.p_vaddr;
    if (segment.p_type == PT_LOAD && address >= start && address < start + segment.p_memsz)
      return true;
  }
  return false;
}

// The GNU build id among the notes of one segment, in hexadecimal.
std::string BuildIdNote(const unsigned char* notes, size_t size) {
  const auto align = [](size_t n) { return (n + 3) & ~static_cast<size_t>(3); };
  size_t offset = 0;
  while (offset + sizeof(ElfW(Nhdr)) <= size) {
    ElfW(Nhdr) header;
    std::memcpy(&header, notes + offset, sizeof header);
    const size_t name = offset + sizeof header;
    const size_t desc = name + align(header.n_namesz);
    if (desc + header.n_descsz > size) break;
    if (header.n_type == NT_GNU_BUILD_ID && header.n_namesz == 4 &&
        std::memcmp(notes + name, "GNU", 4) == 0) {
      std::string id;
      char digits[3];
      for (size_t i = 0; i < header.n_descsz; ++i) {
        std::snprintf(digits, sizeof digits, "%02x", notes[desc + i]);
        id += digits;
      }
      return id;
    }
    offset = desc + align(header.n_descsz);
  }
  return "";
}

int FindBuildId(dl_phdr_info* object, size_t, void* data) {
  auto* search = static_cast<Search*>(data);
  if (!Contains(object, search->address)) return 0;
  for (int i = 0; i < object->dlpi_phnum && search->id.empty(); ++i) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[i];
    if (segment.p_type != PT_NOTE) continue;
    search->id =
        BuildIdNote(reinterpret_cast<const unsigned char*>(object->dlpi_addr + segment.p_vaddr),
                    segment.p_memsz);
  }
  return 1;
}

}  // namespace

std::string OAPBuildInfo::Describe() {
  return "OAP driver plug-in " QM_PROJECT_VERSION ", build id " + BuildId();
}

std::string OAPBuildInfo::BuildId() {
  Search search{reinterpret_cast<uintptr_t>(&FindBuildId), ""};
  dl_iterate_phdr(FindBuildId, &search);
  return search.id.empty() ? "none" : search.id;
}
