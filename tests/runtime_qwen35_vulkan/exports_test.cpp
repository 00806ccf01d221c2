// SPDX-License-Identifier: Apache-2.0
// What the built module shows to the dynamic linker.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/plugin_module.h"
#include "support/elf_file.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

using zemtest::ElfFile;

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
