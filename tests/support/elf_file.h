// SPDX-License-Identifier: Apache-2.0
// What a built program or module says of itself.
#pragma once

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/whole_file.h"

namespace zemtest {

// An ELF file of this machine's own class and byte order.
class ElfFile {
 public:
  explicit ElfFile(const char* path) : bytes_(zemtest::wholeFile(path)) {}

  std::vector<std::string> definedDynamicSymbols() const {
    std::vector<std::string> names;
    forEach<Elf64_Sym>(SHT_DYNSYM, [&](const Elf64_Sym& symbol, const Elf64_Shdr& strings) {
      if (symbol.st_shndx != SHN_UNDEF) names.push_back(text(strings, symbol.st_name));
    });
    return names;
  }

  uint64_t dynamicFlags1() const {
    uint64_t flags = 0;
    forEach<Elf64_Dyn>(SHT_DYNAMIC, [&](const Elf64_Dyn& entry, const Elf64_Shdr&) {
      if (entry.d_tag == DT_FLAGS_1) flags = entry.d_un.d_val;
    });
    return flags;
  }

  std::vector<std::string> neededLibraries() const { return dynamicTexts(DT_NEEDED); }

  // The texts of the entries with this tag: DT_NEEDED, DT_SONAME, ...
  std::vector<std::string> dynamicTexts(int64_t tag) const {
    std::vector<std::string> texts;
    forEach<Elf64_Dyn>(SHT_DYNAMIC, [&](const Elf64_Dyn& entry, const Elf64_Shdr& strings) {
      if (entry.d_tag == tag) texts.push_back(text(strings, entry.d_un.d_val));
    });
    return texts;
  }

 private:
  template <typename T>
  T at(uint64_t offset) const {
    T value;
    if (offset + sizeof value > bytes_.size()) throw std::out_of_range("ELF file cut short");
    std::memcpy(&value, bytes_.data() + offset, sizeof value);
    return value;
  }
  Elf64_Shdr section(uint64_t index) const {
    const auto header = at<Elf64_Ehdr>(0);
    return at<Elf64_Shdr>(header.e_shoff + index * header.e_shentsize);
  }
  std::string text(const Elf64_Shdr& strings, uint64_t offset) const {
    return bytes_.data() + strings.sh_offset + offset;
  }
  template <typename Entry, typename Visit>
  void forEach(uint32_t type, Visit visit) const {
    const auto header = at<Elf64_Ehdr>(0);
    for (uint64_t i = 0; i < header.e_shnum; ++i) {
      const Elf64_Shdr table = section(i);
      if (table.sh_type != type) continue;
      for (uint64_t offset = 0; offset < table.sh_size; offset += sizeof(Entry)) {
        visit(at<Entry>(table.sh_offset + offset), section(table.sh_link));
      }
    }
  }

  std::string bytes_;
};

}  // namespace zemtest
