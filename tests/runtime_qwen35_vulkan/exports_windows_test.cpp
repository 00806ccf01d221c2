// SPDX-License-Identifier: Apache-2.0
// What the built module shows to Windows, and what it needs of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/plugin_module.h"

namespace {

using testing::UnorderedElementsAre;

// A loaded module's own description of itself.
class Image {
 public:
  explicit Image(void* module) : base_(static_cast<const char*>(module)) {}

  std::vector<std::string> exportedNames() const {
    std::vector<std::string> names;
    const auto* table = at<IMAGE_EXPORT_DIRECTORY>(directory(IMAGE_DIRECTORY_ENTRY_EXPORT));
    const auto* offsets = at<DWORD>(table->AddressOfNames);
    for (DWORD i = 0; i < table->NumberOfNames; ++i) names.emplace_back(at<char>(offsets[i]));
    return names;
  }
  size_t exportedFunctions() const {
    return at<IMAGE_EXPORT_DIRECTORY>(directory(IMAGE_DIRECTORY_ENTRY_EXPORT))->NumberOfFunctions;
  }

  std::vector<std::string> neededLibraries() const {
    std::vector<std::string> names;
    const auto* entry = at<IMAGE_IMPORT_DESCRIPTOR>(directory(IMAGE_DIRECTORY_ENTRY_IMPORT));
    for (; entry->Name != 0; ++entry) names.emplace_back(at<char>(entry->Name));
    return names;
  }

 private:
  template <typename T>
  const T* at(DWORD offset) const {
    return reinterpret_cast<const T*>(base_ + offset);
  }
  DWORD directory(size_t index) const {
    const auto* dos = at<IMAGE_DOS_HEADER>(0);
    const auto* headers = at<IMAGE_NT_HEADERS64>(static_cast<DWORD>(dos->e_lfanew));
    return headers->OptionalHeader.DataDirectory[index].VirtualAddress;
  }

  const char* base_;
};

class ExportsTest : public testing::Test {
 protected:
  void SetUp() override {
    library_ = dlopen(zemtest::kModulePath, RTLD_NOW);
    ASSERT_NE(library_, nullptr) << dlerror();
  }

  void* library_ = nullptr;
};

TEST_F(ExportsTest, TheModuleShowsExactlyItsFourFunctions) {
  const Image image(library_);
  EXPECT_THAT(image.exportedNames(),
              UnorderedElementsAre("zem_plugin_init", "zem_plugin_runtimes",
                                   "zem_plugin_runtimes_v2", "zem_plugin_runtimes_v2s"));
  EXPECT_EQ(image.exportedFunctions(), 4U);  // none without a name
}

// What is copied to another machine needs nothing but Windows.
TEST_F(ExportsTest, TheModuleNeedsTheSystemsLibrariesAlone) {
  EXPECT_THAT(Image(library_).neededLibraries(),
              UnorderedElementsAre("KERNEL32.dll", "msvcrt.dll"));
}

// The OpenMP runtime's threads sleep in code that unloading would take away; a
// host that closes the module and goes on would crash.
TEST_F(ExportsTest, TheModuleStaysMappedWhenAHostClosesIt) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(dlclose(library_), 0);
  HMODULE still = nullptr;
  EXPECT_NE(GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                               L"runtime_qwen35_vulkan.dll", &still),
            0);
  EXPECT_EQ(still, library_);
  uint32_t count = 0;
  const auto find = reinterpret_cast<ZEMPluginRuntimesFn>(dlsym(library_, "zem_plugin_runtimes"));
  ASSERT_NE(find, nullptr);
  EXPECT_NE(find(&count), nullptr);
}

TEST_F(ExportsTest, OtherNamesAreNotFound) {
  EXPECT_EQ(dlsym(library_, "zem_plugin_commands"), nullptr);
}

}  // namespace
