// SPDX-License-Identifier: Apache-2.0
#include "engine/text/container_tokenizer.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/text/tokenizer/gguf_entries.h"
#include "engine/text/tokenizer/read_error.h"
#include "kiv/tokenizer.h"

namespace zem::text {
namespace {

using kiv::Status;
using kiv::StatusCode;
using kiv::zem2::SectionType;

// Tokens of the container's vocabulary that stand for their own text.
std::vector<AddedToken> controlTokens(const kiv::ZEM2Reader& reader) {
  kiv::TokenizerData data;
  if (!reader.readTokenizer(data) || data.tokenTypes.size() != data.tokens.size()) return {};
  std::vector<AddedToken> added;
  for (size_t id = 0; id < data.tokens.size(); ++id) {
    if (data.tokenTypes[id] != kiv::kTokenTypeControl || data.tokens[id].empty()) continue;
    added.push_back({static_cast<int32_t>(id), std::move(data.tokens[id]), true});
  }
  return added;
}

Status loadGgufAsset(std::string_view asset, Tokenizer& tokenizer) {
  try {
    return tokenizer.loadGguf(readGgufEntries(asset));
  } catch (const ReadError& error) {
    return {StatusCode::InvalidFormat, std::string("tokenizer: ") + error.what()};
  }
}

}  // namespace

Status loadTokenizer(const kiv::ZEM2Reader& reader, std::optional<Tokenizer>& out) {
  out.reset();
  std::string name;
  const uint8_t* const section = reader.sectionData(SectionType::Asset);
  if (section == nullptr || !reader.getMetaStr("tokenizer.source.name", name)) return {};
  const uint64_t size = reader.sectionSize(SectionType::Asset);
  uint64_t bytes = size;
  (void)reader.getMetaU64("tokenizer.source.bytes", bytes);
  if (bytes > size) {
    return {StatusCode::InvalidFormat, "tokenizer: the source has " + std::to_string(bytes) +
                                           " bytes, but its section " + std::to_string(size)};
  }
  const std::string_view asset(reinterpret_cast<const char*>(section), bytes);

  Tokenizer tokenizer;
  Status status(StatusCode::InvalidFormat,
                "tokenizer: the source \"" + name.substr(0, 80) +
                    "\" is not known, needs \"tokenizer.json\" or \"tokenizer.gguf\"");
  if (name == "tokenizer.json") status = tokenizer.loadJson(asset, controlTokens(reader));
  if (name == "tokenizer.gguf") status = loadGgufAsset(asset, tokenizer);
  if (status.ok()) out = std::move(tokenizer);
  return status;
}

}  // namespace zem::text
