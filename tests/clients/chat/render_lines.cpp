// SPDX-License-Identifier: Apache-2.0
// Answers each line of the standard input, a chat request, with its prompt as a JSON
// string or with {"error": ...}. For comparing with the template itself.
#include <iostream>
#include <string>

#include "engine/text/render_request.h"

int main() {
  const zem::text::ChatFormat* format = zem::text::chatFormatByName("qwen3.5");
  std::string line;
  while (std::getline(std::cin, line)) {
    std::cout << zem::text::renderRequest(line, *format) << "\n" << std::flush;
  }
  return 0;
}
