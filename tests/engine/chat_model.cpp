// SPDX-License-Identifier: Apache-2.0
#include "engine/chat_model.h"

#include "engine/model/shaped_model.h"
#include "engine/text/byte_vocabulary.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2_writer.h"

namespace zemtest {
namespace {

struct Added {
  const char* text;
  bool special;
};

constexpr Added kAdded[] = {{"<|endoftext|>", true}, {"<|im_start|>", true}, {"<|im_end|>", true},
                            {"<think>", false},      {"</think>", false},    {"<tool_call>", false},
                            {"</tool_call>", false}};

}  // namespace

void writeChatModel(const TempFile& file, const std::string& chatTemplate,
                    const std::string& chatFormat) {
  zem::text::test::ByteVocabulary vocabulary;
  kiv::TokenizerData data;
  for (int byte = 0; byte < 256; ++byte) {
    data.tokens.push_back(zem::text::test::spelled(std::string(1, static_cast<char>(byte))));
    data.tokenTypes.push_back(1);
  }
  for (const Added& added : kAdded) {
    vocabulary.add(added.text, added.special);
    data.tokens.emplace_back(added.text);
    data.tokenTypes.push_back(added.special ? 3 : 4);
  }
  data.eosId = kTurnEnd;
  data.chatTemplate = chatTemplate;
  const std::string source = vocabulary.text();
  kiv::ZEM2Writer writer;
  if (!chatFormat.empty()) writer.addMetaStr("chat.format", chatFormat);
  writer.addMetaStr("tokenizer.source.section", "Asset");
  writer.addMetaStr("tokenizer.source.name", "tokenizer.json");
  writer.addMetaU64("tokenizer.source.bytes", source.size());
  writer.addSection(kiv::zem2::SectionType::Asset, source);
  writer.setTokenizer(data);
  kiv::Architecture architecture = smallArchitecture();
  architecture.vocabulary = kChatVocabulary;
  finishShapedModel(writer, file, architecture, kiv::DType::F32, 1);
}

}  // namespace zemtest
