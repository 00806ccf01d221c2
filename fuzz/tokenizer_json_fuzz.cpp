// SPDX-License-Identifier: Apache-2.0
// Any text as tokenizer.json; behind a byte FF, which no text has, tokenizer_config.json,
// and behind another one chat_template.json. What is read makes a tokenizer that works.
#include <string>
#include <string_view>
#include <vector>

#include "console/terminal.h"
#include "convert/convert_tokenizer.h"
#include "convert/json_tokenizer.h"
#include "fuzz.h"
#include "kiv/tokenizer.h"

namespace {

using zemfuzz::require;

constexpr uint64_t kRows = 300;

// The text up to the next byte FF, which goes with it.
std::string_view nextFile(std::string_view& text) {
  const std::string_view file = text.substr(0, text.find('\xFF'));
  text.remove_prefix(std::min(file.size() + 1, text.size()));
  return file;
}

void writeIfAny(const zemfuzz::ScratchFolder& folder, const char* name, std::string_view text) {
  if (text.empty()) {
    folder.remove(name);
  } else {
    folder.write(name, text);
  }
}

void use(const kiv::TokenizerData& data) {
  require(data.tokens.size() == kRows, "rows without a token");
  kiv::Tokenizer tokenizer;
  require(tokenizer.load(data).ok(), "load() fails");
  std::vector<int32_t> ids;
  std::string text;
  require(tokenizer.encode("the \xC3\xA4\n" + data.tokens[0], ids, true).ok(), "encode() fails");
  require(tokenizer.decode(ids, text).ok(), "decode() fails");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const zemfuzz::ScratchFolder folder;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  folder.write("tokenizer.json", nextFile(text));
  writeIfAny(folder, "tokenizer_config.json", nextFile(text));
  writeIfAny(folder, "chat_template.json", nextFile(text));
  try {
    zemtool::SourceTokenizer source = zemtool::readJsonTokenizer(folder.path(), kRows);
    zemtool::TokenizerCounts counts;
    use(zemtool::convertTokenizer(source, kRows, counts));
  } catch (const zemtool::Failure& failure) {
    require(*failure.what() != '\0', "a failure without a message");
  }
  return 0;
}
