// SPDX-License-Identifier: Apache-2.0
#include "compat/dlfcn.h"

#include <filesystem>
#include <string>
#include <thread>

#include "compat/files.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/temp_folder.h"

namespace {

using Function = int (*)();

Function find(void* library, const char* name) {
  return reinterpret_cast<Function>(dlsym(library, name));
}

TEST(DlfcnTest, AnExportedFunctionIsFoundAndRuns) {
  void* library = dlopen(ZEM_TEST_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const Function function = find(library, "forty_two");
  ASSERT_NE(function, nullptr) << dlerror();
  EXPECT_EQ(function(), 42);
  EXPECT_EQ(find(library, "forty_three"), nullptr);
  EXPECT_EQ(dlclose(library), 0);
}

TEST(DlfcnTest, ALibraryMayLieUnderANameBeyondAscii) {
  const zemtest::TempFolder folder;
  const auto copy =
      compat::pathOf(folder.path("")) / compat::pathOf("zw\xC3\xB6lf \xE4\xBD\xA0.so");
  std::filesystem::copy_file(compat::pathOf(ZEM_TEST_LIBRARY), copy);
  void* library = dlopen(compat::nameOf(copy).c_str(), RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  EXPECT_EQ(find(library, "forty_two")(), 42);
  EXPECT_EQ(dlclose(library), 0);
}

TEST(DlfcnTest, AMissingLibraryIsNullAndTheErrorSaysSomething) {
  EXPECT_EQ(dlopen("/no/such/library.so", RTLD_NOW), nullptr);
  const char* text = dlerror();
  ASSERT_NE(text, nullptr);
  EXPECT_STRNE(text, "");
}

TEST(DlfcnTest, WithoutANameTheProgramItselfIsOpened) {
  void* program = dlopen(nullptr, RTLD_NOW);
  EXPECT_NE(program, nullptr);
  EXPECT_EQ(find(program, "no_such_function"), nullptr);
}

#if defined(_WIN32)

extern "C" __declspec(dllexport) int of_the_program() { return 7; }

TEST(DlfcnOnWindows, NullAndTheEmptyNameAreTheProgram) {
  EXPECT_EQ(dlopen("", 0), dlopen(nullptr, 0));
  EXPECT_EQ(find(nullptr, "of_the_program")(), 7);
  EXPECT_EQ(find(dlopen(nullptr, 0), "of_the_program")(), 7);
  EXPECT_EQ(find(nullptr, "forty_two"), nullptr);
  EXPECT_EQ(dlclose(nullptr), 0);
}

TEST(DlfcnOnWindows, ClosingWhatIsNoLibraryFails) {
  int nothing = 0;
  EXPECT_EQ(dlclose(&nothing), 1);
}

TEST(DlfcnOnWindows, ANameOfMoreThan4095CharactersIsRefused) {
  EXPECT_EQ(dlopen(std::string(4096, 'a').c_str(), 0), nullptr);
}

TEST(DlfcnOnWindows, SystemLibrariesAreFoundByTheirBareNames) {
  void* library = dlopen("kernel32.dll", RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  EXPECT_NE(dlsym(library, "GetTickCount64"), nullptr);
  EXPECT_EQ(dlclose(library), 0);
}

TEST(DlfcnOnWindows, TheErrorStaysUntilTheNextOne) {
  ASSERT_EQ(dlopen("no such library.dll", 0), nullptr);
  const std::string first = dlerror();
  EXPECT_EQ(first.back(), '\n');  // the system's line break
  EXPECT_EQ(dlerror(), first);
  ASSERT_NE(dlsym(dlopen("kernel32.dll", 0), "GetTickCount64"), nullptr);
  EXPECT_NE(std::string(dlerror()), "");  // of whatever failed last; never null
}

TEST(DlfcnOnWindows, EachThreadHasItsOwnText) {
  ASSERT_EQ(dlopen("no such library.dll", 0), nullptr);
  const char* here = dlerror();
  const std::string text = here;
  std::thread([&] {
    EXPECT_EQ(dlsym(nullptr, "no_such_function"), nullptr);
    EXPECT_NE(dlerror(), here);
  }).join();
  EXPECT_EQ(here, text);
}

extern "C" __declspec(dllimport) void __stdcall SetLastError(unsigned long);

TEST(DlfcnOnWindows, AnErrorWithoutATextIsGivenAsItsNumber) {
  SetLastError(0xE0001234UL);
  EXPECT_STREQ(dlerror(), "Win32 error 3758101044");
}

#endif

}  // namespace
