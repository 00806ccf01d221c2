// SPDX-License-Identifier: Apache-2.0
// zem_pages FOLDER: writes the manual page and the completions of `zem` into FOLDER.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "commands/command_line.h"
#include "pages.h"

namespace {

bool write(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) std::fprintf(stderr, "zem_pages: cannot write %s\n", path.c_str());
  return !file.fail();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: zem_pages FOLDER\n", stderr);
    return 2;
  }
  const zemtool::CommandFacts program = zemtool::ZemCommandLine().facts();
  const std::filesystem::path folder = argv[1];
  const bool written =
      write(folder / "zem.1", zempages::manualPage(program, {ZEM_VERSION, ZEM_PAGES_DATE})) &&
      write(folder / "zem.bash", zempages::bashCompletion(program)) &&
      write(folder / "_zem", zempages::zshCompletion(program)) &&
      write(folder / "zem.fish", zempages::fishCompletion(program));
  return written ? 0 : 1;
}
