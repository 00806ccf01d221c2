// SPDX-License-Identifier: Apache-2.0
// Any bytes as the tokenizer section of a container. What can be read is written
// again in the same bytes, and makes a tokenizer that works.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2_reader.h"
#include "support/container_builder.h"

namespace {

using zemfuzz::require;

// The section may go on behind what is read, and its last byte be any true value.
void checkSame(const kiv::TokenizerData& data, const zemfuzz::Bytes& section) {
  const zemfuzz::Bytes again = zemtest::tokenizerBytes(data);
  require(again.size() <= section.size(), "more than the section was read");
  require(std::equal(again.begin(), again.end() - 1, section.begin()), "other bytes were read");
  require(data.addBos == (section[again.size() - 1] != 0), "another flag was read");
}

void use(const kiv::TokenizerData& data) {
  kiv::Tokenizer tokenizer;
  const kiv::Status status = tokenizer.load(data);
  require(status.ok() == !data.tokens.empty(), "load() refuses tokens, or takes none");
  if (!status.ok()) return;
  std::vector<int32_t> ids;
  std::string text;
  for (const std::string& token : data.tokens) {
    const int32_t id = tokenizer.tokenToId(token);
    require(id >= 0 && data.tokens[static_cast<size_t>(id)] == token, "a token is not found");
  }
  require(tokenizer.encode(" a\n" + data.tokens.back(), ids, true).ok(), "encode() fails");
  require(tokenizer.decode(ids, text).ok(), "decode() fails");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static zemfuzz::MemoryFile file;
  const zemfuzz::Bytes section(data, data + size);
  zemtest::ContainerBuilder builder;
  file.write(builder.rawTokenizer(section).build());
  kiv::ZEM2Reader reader;
  require(reader.open(file.path()).ok(), "the container does not open");
  kiv::TokenizerData tables;
  if (!reader.readTokenizer(tables)) return 0;
  checkSame(tables, section);
  use(tables);
  return 0;
}
