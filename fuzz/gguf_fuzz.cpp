// SPDX-License-Identifier: Apache-2.0
// Any bytes as a GGUF file: the reader with every conversion of its values, then the
// model with its tokenizer and everything that a conversion plans.
#include <string>
#include <string_view>
#include <vector>

#include "console/terminal.h"
#include "convert/convert_tokenizer.h"
#include "convert/gguf/gguf_source.h"
#include "convert/gguf/gguf_tokenizer.h"
#include "fuzz.h"
#include "kiv/container/gguf.h"
#include "planned.h"

namespace {

using zemfuzz::require;

constexpr uint64_t kRows = 300;

void lookAt(const kiv::GgufValue& value) {
  uint64_t whole = 0;
  double number = 0;
  bool flag = false;
  std::string_view text;
  std::vector<uint64_t> wholes;
  std::vector<std::string_view> texts;
  (void)value.getUint(whole);
  (void)value.getFloat(number);
  (void)value.getBool(flag);
  if (value.getText(text)) zemfuzz::touch(text);
  if (value.getUints(wholes)) require(wholes.size() == value.count, "elements are missing");
  if (value.getTexts(texts)) {
    require(texts.size() == value.count, "texts are missing");
    for (const std::string_view t : texts) zemfuzz::touch(t);
  }
  zemfuzz::touch(value.entry);
}

void lookAt(const kiv::GgufFile& gguf) {
  for (const kiv::GgufValue& value : gguf.values()) {
    require(gguf.find(value.key) == &value, "a key finds another value");
    lookAt(value);
  }
  for (const kiv::GgufTensor& tensor : gguf.tensors()) zemfuzz::touch(tensor.data, tensor.bytes);
}

// The asset is a GGUF file of its own, with the same tokenizer in it.
void checkAsset(const zemtool::SourceTokenizer& tokenizer) {
  static zemfuzz::MemoryFile memory;
  memory.write(reinterpret_cast<const uint8_t*>(tokenizer.asset.data()), tokenizer.asset.size());
  kiv::GgufFile asset;
  require(asset.open(memory.path()).ok(), "the tokenizer's own file does not open");
  const zemtool::SourceTokenizer again = zemtool::readGgufTokenizer(asset, kRows);
  require(again.asset == tokenizer.asset, "the tokenizer's own file holds another one");
}

void convertTokenizerOf(const kiv::GgufFile& gguf) {
  try {
    zemtool::SourceTokenizer tokenizer = zemtool::readGgufTokenizer(gguf, kRows);
    checkAsset(tokenizer);
    zemtool::TokenizerCounts counts;
    kiv::Tokenizer loaded;
    require(loaded.load(zemtool::convertTokenizer(tokenizer, kRows, counts)).ok(), "load() fails");
    std::vector<int32_t> ids;
    require(loaded.encode("a b\n\xE2\x96\x81", ids, true).ok(), "encode() fails");
  } catch (const zemtool::Failure&) {
    return;
  }
}

void plan(const char* path) {
  try {
    zemfuzz::planWhole(zemtool::openGguf(path), zemtool::WeightMix::Q5_K_M, true);
  } catch (const zemtool::Failure&) {
    return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static zemfuzz::MemoryFile memory;
  memory.write(data, size);
  kiv::GgufFile gguf;
  if (!gguf.open(memory.path()).ok()) return 0;
  lookAt(gguf);
  convertTokenizerOf(gguf);
  plan(memory.path());
  return 0;
}
