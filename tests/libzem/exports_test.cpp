// SPDX-License-Identifier: Apache-2.0
// What the built library shows to the dynamic linker.
#include <gmock/gmock.h>

#include <regex>
#include <string>
#include <vector>

#include "support/elf_file.h"
#include "support/whole_file.h"

namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAreArray;

// The functions that a C header declares for others.
std::vector<std::string> declaredFunctions() {
  const std::string header = zemtest::wholeFile(ZEM_TEST_HEADER);
  const std::regex declaration(R"(ZEM_API [^(]*?(zem_\w+)\()");
  std::vector<std::string> names;
  for (std::sregex_iterator at(header.begin(), header.end(), declaration), end; at != end; ++at) {
    names.push_back((*at)[1]);
  }
  return names;
}

TEST(LibraryExportsTest, ShowsWhatTheHeaderDeclaresAndNothingElse) {
  std::vector<std::string> expected = declaredFunctions();
  EXPECT_EQ(expected.size(), 21U);
  expected.emplace_back("ZEM_1");  // the version of the symbols
  EXPECT_THAT(zemtest::ElfFile(ZEM_TEST_LIBRARY).definedDynamicSymbols(),
              UnorderedElementsAreArray(expected));
}

TEST(LibraryExportsTest, IsNamedAfterItsInterface) {
  EXPECT_THAT(zemtest::ElfFile(ZEM_TEST_LIBRARY).dynamicTexts(DT_SONAME),
              ElementsAre("libzem.so.1"));
}

// Threads that the library started may still be asleep in its code.
TEST(LibraryExportsTest, StaysMappedWhenAHostClosesIt) {
  EXPECT_NE(zemtest::ElfFile(ZEM_TEST_LIBRARY).dynamicFlags1() & DF_1_NODELETE, 0U);
}

}  // namespace
