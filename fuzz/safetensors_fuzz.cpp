// SPDX-License-Identifier: Apache-2.0
// Any bytes as the weights of a checkpoint whose other files are sound: the table
// alone, then the folder with everything that a conversion plans.
#include <string>
#include <vector>

#include "console/terminal.h"
#include "convert/checkpoint_source.h"
#include "convert/safetensors.h"
#include "fuzz.h"
#include "planned.h"

namespace {

using zemfuzz::require;

constexpr char kConfig[] = R"({"model_type": "qwen3_5"})";
constexpr char kTokenizer[] = R"({
  "model": {"type": "BPE", "vocab": {"a": 0, "b": 1, "ab": 5}, "merges": ["a b"]},
  "decoder": {"type": "ByteLevel"}, "added_tokens": [{"id": 9, "content": "<|im_end|>"}]})";

// True for a table that was read.
bool readTable(const uint8_t* data, size_t size) {
  static zemfuzz::MemoryFile memory;
  memory.write(data, size);
  kiv::MappedFile file;
  require(file.open(memory.path()).ok(), "the file does not open");
  try {
    for (const zemtool::SafetensorsEntry& entry : zemtool::readSafetensors(file)) {
      require(entry.shape.size() <= 16, "too many extents");
      zemfuzz::touch(entry.data, entry.bytes);
    }
  } catch (const zemtool::Failure&) {
    return false;
  }
  return true;
}

void plan(const uint8_t* data, size_t size) {
  static const zemfuzz::ScratchFolder folder;
  folder.write("config.json", kConfig);
  folder.write("tokenizer.json", kTokenizer);
  folder.write("model.safetensors", {reinterpret_cast<const char*>(data), size});
  try {
    zemfuzz::planWhole(zemtool::openCheckpoint(folder.path()), zemtool::WeightMix::Q4_K_M, false);
  } catch (const zemtool::Failure&) {
    return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (readTable(data, size)) plan(data, size);
  return 0;
}
