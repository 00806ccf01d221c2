// SPDX-License-Identifier: Apache-2.0
// What the built module shows to the dynamic linker.
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/plugin_module.h"
#include "support/whole_file.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

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

  std::vector<std::string> neededLibraries() const {
    std::vector<std::string> names;
    forEach<Elf64_Dyn>(SHT_DYNAMIC, [&](const Elf64_Dyn& entry, const Elf64_Shdr& strings) {
      if (entry.d_tag == DT_NEEDED) names.push_back(text(strings, entry.d_un.d_val));
    });
    return names;
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

TEST(ExportsTest, TheModuleShowsExactlyItsFourFunctions) {
  EXPECT_THAT(ElfFile(zemtest::kModulePath).definedDynamicSymbols(),
              UnorderedElementsAre("zem_plugin_init", "zem_plugin_runtimes",
                                   "zem_plugin_runtimes_v2", "zem_plugin_runtimes_v2s"));
}

// A machine without a Vulkan loader must be able to load the module.
TEST(ExportsTest, TheModuleDoesNotNeedTheVulkanLoader) {
  const std::vector<std::string> needed = ElfFile(zemtest::kModulePath).neededLibraries();
  EXPECT_FALSE(needed.empty());
  EXPECT_THAT(needed, testing::Each(Not(HasSubstr("vulkan"))));
}

// The OpenMP runtime's threads sleep in code that unloading would take away; a
// host that closes the module and goes on would crash.
TEST(ExportsTest, TheModuleStaysMappedWhenAHostClosesIt) {
  EXPECT_NE(ElfFile(zemtest::kModulePath).dynamicFlags1() & DF_1_NODELETE, 0U);
}

TEST(ExportsTest, TheModuleLoadsWithEverySymbolBound) {
  void* library = dlopen(zemtest::kModulePath, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  for (const char* name : {"zem_plugin_init", "zem_plugin_runtimes", "zem_plugin_runtimes_v2",
                           "zem_plugin_runtimes_v2s"}) {
    EXPECT_NE(dlsym(library, name), nullptr) << name;
  }
  EXPECT_EQ(dlsym(library, "zem_plugin_commands"), nullptr);
  dlclose(library);
}

}  // namespace
