// SPDX-License-Identifier: Apache-2.0
// Writes the seeds under fuzz/corpus: small inputs that reach far into each fuzzer's
// subject.
//   make_seeds FOLDER
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/byte_vocabulary.h"
#include "kiv/quant.h"
#include "kiv/quant_k.h"
#include "support/container_builder.h"
#include "support/published_model.h"

namespace {

using nlohmann::json;
using zemtest::Bytes;
using zemtest::ContainerBuilder;
using zemtest::putText;
using zemtest::putU16;
using zemtest::putU32;
using SectionType = kiv::zem2::SectionType;

class Corpus {
 public:
  Corpus(std::filesystem::path folder, const char* fuzzer) : folder_(std::move(folder) / fuzzer) {
    std::filesystem::create_directories(folder_);
  }

  void add(const char* name, const Bytes& bytes) const {
    std::ofstream file(folder_ / name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) throw std::runtime_error("cannot write " + (folder_ / name).string());
  }
  void add(const char* name, std::string_view text) const {
    Bytes bytes;
    putText(bytes, text);
    add(name, bytes);
  }

 private:
  std::filesystem::path folder_;
};

kiv::TokenizerData vocabulary() {
  kiv::TokenizerData data;
  data.tokens = {"<|im_end|>", "a", "b", "ab", "\xE2\x96\x81", "<0x41>", "\xC3\xA4"};
  data.tokenTypes = {3, 1, 1, 1, 1, 6, 1};
  data.scores = {0, -1, -2, -3, -4, -5, -6};
  data.merges = {"a b", "\xE2\x96\x81 a"};
  data.eosId = 0;
  data.chatTemplate = "chatml";
  return data;
}

void containers(const Corpus& corpus) {
  corpus.add("empty", ContainerBuilder().build());
  corpus.add("bare", ContainerBuilder().noTokenizer().build());
  ContainerBuilder metadata;
  metadata.addMetaStr("general.architecture", "qwen35").addMetaU32("u", 1).addMetaI32("i", -1);
  metadata.addMetaF32("f", 0.5F).addMetaU64("w", 1).addMetaU32Array("a", {1, 2, 3});
  corpus.add("metadata", metadata.build());
  ContainerBuilder tensors;
  tensors.hiddenSize(4).layerCount(1).vocabSize(2).quantInfo().graph({'g'});
  tensors.tokenizer(vocabulary());
  tensors.addTensor("token_embd.weight", kiv::DType::F32, {4, 2}, Bytes(32, 1));
  tensors.addTensor("blk.0.ssm_a", kiv::DType::Q4_K, {256}, Bytes(144, 2));
  tensors.addTensor(std::string(64, 'n'), kiv::DType::Q5_1, {1, 1, 1, 1}, Bytes(24, 3));
  tensors.addSection(SectionType::Asset, {'a'});
  corpus.add("tensors", tensors.build());
}

void tokenizerSections(const Corpus& corpus) {
  corpus.add("whole", zemtest::tokenizerBytes(vocabulary()));
  corpus.add("empty", zemtest::tokenizerBytes({}));
  Bytes longer = zemtest::tokenizerBytes(vocabulary());
  longer.push_back(7);
  corpus.add("longer", longer);
}

// As readVocabulary() in encode_fuzz.cpp takes it apart.
Bytes encodeInput(const std::vector<std::pair<uint8_t, std::string>>& tokens,
                  const std::vector<std::string>& merges, uint8_t flags, std::string_view text) {
  Bytes out = {static_cast<uint8_t>(tokens.size() - 1), static_cast<uint8_t>(merges.size()), flags};
  for (const auto& [type, token] : tokens) {
    out.push_back(static_cast<uint8_t>(type << 5 | token.size()));
    putText(out, token);
  }
  for (const std::string& merge : merges) {
    out.push_back(static_cast<uint8_t>(merge.size()));
    putText(out, merge);
  }
  if ((flags & 2) != 0) putU32(out, 1);
  if ((flags & 4) != 0) putU32(out, 0);
  for (const int byte : {4, 0, 1, 0x7F, 0xFF}) out.push_back(static_cast<uint8_t>(byte));
  putText(out, text);
  return out;
}

void encodings(const Corpus& corpus) {
  corpus.add("words", encodeInput({{2, "?"},
                                   {3, "<s>"},
                                   {1, "a"},
                                   {1, "b"},
                                   {1, "ab"},
                                   {1, "\xE2\x96\x81"},
                                   {1, std::string("\xE2\x96\x81") + "ab"},
                                   {1, "\n"}},
                                  {"a b", "\xE2\x96\x81 ab"}, 6, "ab <s>ab\nba  ab"));
  corpus.add("byte_level", encodeInput({{1, "\xC4\xA0"},
                                        {1, "a"},
                                        {1,
                                         "\xC4\xA0"
                                         "a"}},
                                       {"\xC4\xA0 a"}, 0,
                                       "a \xC4\xA0"
                                       "a 12345 it's ..."));
  corpus.add("broken",
             encodeInput({{3, ""}, {1, "\xE2"}, {1, "\x96\x81"}, {1, "\xF0\x9F"}},
                         {"\xE2 \x96", " a", "a ", "a b c"}, 1, "\xE2\x96 \xF0\x9F\xFF\xC0"));
  corpus.add("bytes", encodeInput({{1, "<0x4"}, {1, "1>"}, {6, "<0xe4>"}}, {"< 0", "<0 x"}, 0,
                                  "<0x41><0xE4>"));
}

void blocks(const Corpus& corpus) {
  std::vector<float> weights(256);
  for (size_t i = 0; i < weights.size(); ++i) {
    weights[i] = static_cast<float>(i * 37 % 511) / 256.0F - 1.0F;
  }
  using Encode = void (*)(const float*, void*, uint64_t);
  const Encode encoders[] = {kiv::quant::quantQ40, kiv::quant::quantQ80, kiv::quant::quantQ4K,
                             kiv::quant::quantQ5K, kiv::quant::quantQ6K};
  const kiv::QuantType types[] = {kiv::QuantType::Q4_0, kiv::QuantType::Q8_0, kiv::QuantType::Q4_K,
                                  kiv::QuantType::Q5_K, kiv::QuantType::Q6_K};
  for (uint8_t i = 0; i < 5; ++i) {
    Bytes out = {i, 100, 0};
    const size_t begin = out.size();
    out.resize(begin + kiv::quant::quantizedBytes(types[i], weights.size()));
    encoders[i](weights.data(), out.data() + begin, weights.size());
    corpus.add(("blocks_" + std::to_string(i)).c_str(), out);
    Bytes floats = {i, 33, 0};
    for (size_t w = 0; w < 70; ++w) zemtest::putF32(floats, weights[w]);
    corpus.add(("floats_" + std::to_string(i)).c_str(), floats);
  }
}

void hints(const Corpus& corpus) {
  const std::string layers(1, 32);
  corpus.add("all", layers + "host;ctx=2048;kv=q8_0;plan=gpu:4,cpu:2,gpu:all");
  corpus.add("f16", layers + "host;kv=f16;ctx=0;kv=q4_0");
  corpus.add("plan", std::string(1, 8) + "gpu:10,cpu:0,c,xpu:3,gpu:all,cpu");
  corpus.add("none", std::string(1, 0) + "gpu");
}

Bytes safetensors(const json& header, size_t dataBytes) {
  return zemtest::safetensorsBytes(header.dump(), Bytes(dataBytes, 0));
}

json entry(const char* type, std::vector<uint64_t> shape, uint64_t begin, uint64_t end) {
  return {{"dtype", type}, {"shape", std::move(shape)}, {"data_offsets", {begin, end}}};
}

void checkpoints(const Corpus& corpus) {
  corpus.add("none", safetensors(json::object(), 0));
  corpus.add("metadata", safetensors({{"__metadata__", {{"format", "pt"}}},
                                      {"visual.x", entry("BF16", {2, 2}, 0, 8)},
                                      {"odd", entry("F8_X", {3}, 8, 11)}},
                                     16));
  corpus.add("widths",
             safetensors({{"model.embed_tokens.weight", entry("BF16", {12, 1}, 0, 24)},
                          {"model.layers.0.mlp.gate_proj.weight", entry("BF16", {2, 1}, 24, 28)},
                          {"lm_head.weight", entry("BF16", {12, 1}, 28, 52)},
                          {"mtp.x", entry("F32", {1}, 52, 56)}},
                         56));
}

zemtest::GgufBuilder smallGguf() {
  zemtest::GgufBuilder gguf = zemtest::supportedGguf(1, 1);
  for (const char* key : {"tokens", "token_type", "merges", "eos_token_id", "padding_token_id"}) {
    gguf.erase(std::string("tokenizer.ggml.") + key);
  }
  gguf.addTexts("tokenizer.ggml.tokens", {"a", "b", "ab", "\xC4\xA0", "<|im_end|>", "?"});
  gguf.addI32s("tokenizer.ggml.token_type", {1, 1, 1, 1, 3, 5});
  gguf.addTexts("tokenizer.ggml.merges", {"a b", "\xC4\xA0 a"});
  gguf.addU32("tokenizer.ggml.eos_token_id", 4);
  return gguf;
}

void ggufs(const Corpus& corpus) {
  zemtest::GgufBuilder values;
  values.addU32("a", 1).addF32("b", 2).addBool("c", true).addText("d", "e");
  values.addI32s("f", {1, -1}).addTexts("g", {"h", ""});
  corpus.add("values", values.build());
  corpus.add("tokenizer", smallGguf().build());
  zemtest::GgufBuilder tensors = smallGguf();
  using namespace zemtest::gguf;
  tensors.addTensor("token_embd.weight", kF16, {1, 8}, Bytes(16, 1));
  tensors.addTensor("blk.0.ffn_gate.weight", kBF16, {1, 1}, Bytes(2, 2));
  tensors.addTensor("output.weight", kF16, {1, 8}, Bytes(16, 1));
  tensors.addTensor("blk.0.ffn_up.weight", kQ8_0, {32, 1}, Bytes(34, 3));
  tensors.addTensor("v.patch", kF32, {1}, Bytes(4, 4));
  corpus.add("tensors", tensors.build());
}

void configs(const Corpus& corpus) {
  const json wrapped = zemtest::wrappedConfig({});
  corpus.add("wrapped", wrapped.dump());
  json plain = wrapped["text_config"];
  plain["eos_token_id"] = {1, 2};
  corpus.add("plain", plain.dump());
  corpus.add("generation",
             R"({"temperature": 0.7, "top_k": 20, "top_p": 0.8, "eos_token_id": [1, 2]})");
}

void tokenizers(const Corpus& corpus) {
  const std::string small =
      R"({"model": {"type": "BPE", "vocab": {"a": 0, "b": 1, "ab": 2, "\u0120": 3},
          "merges": ["a b", ["\u0120", "a"]]},
          "pre_tokenizer": {"type": "Sequence", "pretokenizers": [{"type": "ByteLevel"}]},
          "added_tokens": [{"id": 5, "content": "<|im_end|>", "special": true}]})";
  const std::string config =
      R"({"eos_token": {"content": "<|im_end|>"}, "pad_token": "a", "bos_token": "b",
          "added_tokens_decoder": {"6": {"content": "<x>"}},
          "chat_template": [{"name": "default", "template": "t"}]})";
  corpus.add("small", small);
  corpus.add("with_config", small + "\xFF" + config);
  corpus.add("with_template", small + "\xFF{}\xFF" + R"({"chat_template": "t"})");
}

// As Model::change() in session_fuzz.cpp takes them apart: changes, the room for
// tokens, the user's text.
void sessions(const Corpus& corpus) {
  const auto change = [](std::vector<std::pair<uint16_t, uint8_t>> changes, const char* text) {
    Bytes out = {static_cast<uint8_t>(changes.size())};
    for (const auto& [field, value] : changes) {
      putU16(out, field);
      out.push_back(value);
    }
    out.push_back(1);
    putText(out, text);
    return out;
  };
  corpus.add("sound", change({}, "xy"));
  corpus.add("header", change({{3, 5}, {8, 20}}, "x"));
  corpus.add("section", change({{14, 3}}, "xy"));
  corpus.add("late", change({{1000, 1}, {5000, 2}}, "xyx"));
}

void replies(const Corpus& corpus) {
  const std::string call =
      "<tool_call>\n<function=f>\n<parameter=s>\na\n b\n</parameter>\n<parameter=n>\n[1, True]\n"
      "</parameter>\n</function>\n</tool_call>";
  corpus.add("content", std::string(2, '\2') + "Hello <b>you</b>\n");
  corpus.add("thinking", "\1\2\nwhy\n</think>\n\nHello\n\n" + call + "\n" + call);
  corpus.add("call_in_thinking", "\5\1so\n" + call + "\n</think>\nend");
  corpus.add("broken",
             "\4\6<tool_call>\n{}</tool_call><tool_call><function=f><parameter=z>None</function>\n"
             "</tool_call><tool_call><function=g>x<parameter=n>1");
  corpus.add("no_calls", "\3\7a<think>b</think>" + call);
}

void chatRequests(const Corpus& corpus) {
  corpus.add("question", R"({"messages":[{"role":"user","content":"Hi"}]})");
  corpus.add("tools",
             R"({"messages":[{"role":"system","content":"S"},{"role":"user","content":[{"text":"a"},
{"image":1},{"type":"video"}]},{"role":"assistant","content":"<think>r</think>b","tool_calls":[{"function":
{"name":"f","arguments":"{\"a\": 1.0, \"b\": [true]}"}},{"name":"g","arguments":{"c":null}}]},
{"role":"tool","content":"1"},{"role":"tool","content":null},{"role":"developer","content":"d"},
{"role":"user","content":"<tool_response></tool_response>"}],"tools":[{"name":"f"}],"merge_system":true,
"enable_thinking":false,"omit_empty_thinking":true,"chat_template":"qwen3.8","preserve_thinking":false})");
  corpus.add("refused",
             R"({"messages":[{"role":"assistant","reasoning_content":"x"},{"role":"bot"}]})");
}

void requests(const Corpus& corpus) {
  corpus.add("settings",
             R"({"temperature":0.5,"top_p":0.9,"min_p":0,"top_k":40,"repetition_penalty":1.1,
"presence_penalty":-1,"frequency_penalty":2e0,"penalty_window":64,"seed":7,"max_tokens":9,"stop":["a","b"],
"logit_bias":{"5":-100,"17":1.5},"logprobs":true,"top_logprobs":4,"n":1,"stream":true})");
  corpus.add("chat",
             R"({"messages":[{"role":"user","content":"Hi"}],"tools":[{"function":{"name":"f"}}],
"tool_choice":{"type":"function","function":{"name":"f"}},"parallel_tool_calls":false,"enable_thinking":true,
"thinking_budget":-1,"reasoning_effort":"low","preserve_thinking":null,"max_completion_tokens":5,"stop":"x"})");
  corpus.add(
      "schema",
      R"({"messages":[],"response_format":{"type":"json_schema","json_schema":{"schema":{"const":1}}},
"merge_system":true,"omit_empty_thinking":false,"add_vision_id":false,"logprobs":3})");
  corpus.add("refused", R"({"messages":[{"role":"user"}],"temprature":1})");
}

void schemas(const Corpus& corpus) {
  corpus.add("any", "true\xFF{\"a\": [1, {}, \"x\\u00e4\"]}");
  corpus.add("object",
             R"({"type":"object","properties":{"a":{"type":"integer","minimum":-3,"maximum":40},
"b":{"type":"string","pattern":"^[a-f]{2,4}$"},"c":{"enum":["x","xy",1,null,{"d":[]}]}},"required":["a"],
"additionalProperties":false})"
             "\xFF{\"b\":\"abc\",\"a\":12,\"c\":\"xy\"}");
  corpus.add("tree",
             R"({"$ref":"#/$defs/t","$defs":{"t":{"anyOf":[{"type":"null"},{"type":"array","items":
{"$ref":"#/$defs/t"},"minItems":1,"maxItems":3}]}}})"
             "\xFF[[null],[[null]]]");
  corpus.add("arguments",
             R"({"properties":{"s":{"type":"string","minLength":1},"n":{"exclusiveMinimum":0.5,
"type":"number"},"e":{"enum":["a","","ab"]},"z":{"type":["string","null"]}},"required":["s"]})"
             "\xFF<tool_call>\n<function=f>\n<parameter=s>\nx\n</parameter>\n</function>");
}

// As text_tokenizer_fuzz.cpp takes them apart: files, and vocabularies made of rules.
void textTokenizers(const Corpus& corpus) {
  const auto file = [](const std::string& source, const std::string& text) {
    Bytes out = {0};
    putText(out, source + "\xFF" + text);
    return out;
  };
  zem::text::test::ByteVocabulary vocabulary;
  vocabulary.merge("a", "b");
  vocabulary.merge(" ", "ab");
  vocabulary.add("<|im_end|>", true);
  vocabulary.add("<think>", false, true);
  corpus.add("file", file(vocabulary.text(), "ab ab<|im_end|><think>e\xCC\x81"));
  vocabulary.root()["normalizer"] = nullptr;
  vocabulary.root()["model"]["merges"] = {"a b", "Ġ ab"};
  corpus.add("escapes", file(vocabulary.root().dump(1, ' ', true), " ab\r\n"));
  corpus.add("no_file", file("{\"model\":{\"vocab\":{\"\\u0041\":0},\"merges\":[]}}", "A"));

  Bytes rules = {1, 3};
  for (const int side : {0x61, 0x62, 0xCC, 0x81, 256, 257}) {
    putU16(rules, static_cast<uint16_t>(side));
  }
  rules.push_back(1);
  putText(rules, "\x01x\x01");  // one byte, the token <x>, special
  for (const char flags : {'\0', '\1', '\2', '\4'}) {
    Bytes out = rules;
    out.push_back(static_cast<uint8_t>(flags));
    putText(out, "ab\xCC\x81 it's <x>12  \r\n<x>\xE1\x84\x80\xE1\x85\xA1\xFF.");
    corpus.add(("rules_" + std::to_string(static_cast<int>(flags))).c_str(), out);
  }
}

// How many changes, each a place and a byte; whether the file is cut, and where.
void savedChats(const Corpus& corpus) {
  corpus.add("sound", Bytes{0, 1});
  corpus.add("changed_token", Bytes{1, 0x40, 0, 0, 0, 7, 1});
  corpus.add("count", Bytes{2, 0x18, 0, 0, 0, 0xFF, 0x1F, 0, 0, 0, 0xFF, 1});
  corpus.add("cut", Bytes{0, 0, 0x50, 0, 0, 0});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds FOLDER\n");
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  containers({folder, "container"});
  tokenizerSections({folder, "tokenizer_section"});
  encodings({folder, "encode"});
  blocks({folder, "blocks"});
  hints({folder, "hint"});
  checkpoints({folder, "safetensors"});
  ggufs({folder, "gguf"});
  configs({folder, "config"});
  tokenizers({folder, "tokenizer_json"});
  sessions({folder, "session"});
  savedChats({folder, "saved_chat"});
  replies({folder, "reply_parser"});
  chatRequests({folder, "chat_request"});
  requests({folder, "request_json"});
  schemas({folder, "schema"});
  textTokenizers({folder, "text_tokenizer"});
  return 0;
}
