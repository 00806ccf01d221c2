// SPDX-License-Identifier: Apache-2.0
#include "support/smallest_model.h"

#include <algorithm>
#include <string>
#include <utility>

namespace zemtest {
namespace {

using kiv::DType;
using kiv::zem2::SectionType;

constexpr size_t kSmallestLayers = 32;

// Small numbers of both signs, other ones for each tensor.
Bytes floats(size_t count, uint32_t seed) {
  Bytes out;
  uint32_t state = seed * 2654435761U + 1;
  for (size_t i = 0; i < count; ++i) {
    state = state * 1664525U + 1013904223U;
    putF32(out, static_cast<float>(static_cast<int32_t>(state)) / 2147483648.0F);
  }
  return out;
}

Bytes bf16s(size_t count, uint32_t seed) {
  const Bytes wide = floats(count, seed);
  Bytes out;
  for (size_t i = 0; i < count; ++i)
    putU16(out, static_cast<uint16_t>(getUint(wide, 4 * i + 2, 2)));
  return out;
}

// Blocks of any codes whose half-precision scales, at these offsets, are 2^-6.
Bytes blocks(size_t count, size_t blockBytes, std::vector<size_t> scales) {
  constexpr uint16_t kScale = 0x2400;
  Bytes out;
  for (size_t i = 0; i < count * blockBytes; ++i) putUint(out, i * 37 + i / 7, 1);
  for (size_t b = 0; b < count; ++b) {
    for (const size_t at : scales) setUint(out, b * blockBytes + at, 2, kScale);
  }
  return out;
}

kiv::TokenizerData smallestTokenizer() {
  kiv::TokenizerData data;
  data.tokens = {"<|im_end|>", "<|endoftext|>", "x", "y", "xy", "\xE2\x96\x81", "<0x41>"};
  data.tokenTypes = {3, 3, 1, 1, 1, 1, 6};
  data.scores = {0, 0, -1, -2, -3, -4, -5};
  data.merges = {"x y", "\xE2\x96\x81 x"};
  data.eosId = 1;
  data.chatTemplate = "t";
  return data;
}

// Both the best logit and the worst belong to ordinary tokens: whichever sign the
// hidden state has, the reply does not end.
Bytes embedding() {
  Bytes out;
  for (const float row : {0.1F, 0.0F, 1.5F, -1.5F, 0.5F, -0.5F, 0.25F}) putF32(out, row);
  return out;
}

void addCommon(ContainerBuilder& builder, const std::string& prefix) {
  builder.addTensor(prefix + "attn_norm.weight", DType::F32, {1}, floats(1, 1));
  builder.addTensor(prefix + "post_attention_norm.weight", DType::F32, {1}, floats(1, 2));
  builder.addTensor(prefix + "ffn_gate.weight", DType::F32, {1, 1}, floats(1, 3));
  builder.addTensor(prefix + "ffn_up.weight", DType::BF16, {1, 1}, bf16s(1, 4));
  builder.addTensor(prefix + "ffn_down.weight", DType::Q8_0, {1, 1}, blocks(1, 34, {0}));
}

void addLinear(ContainerBuilder& builder, const std::string& prefix) {
  addCommon(builder, prefix);
  builder.addTensor(prefix + "attn_qkv.weight", DType::BF16, {1, 8192}, bf16s(8192, 16));
  builder.addTensorAlias(prefix + "attn_gate.weight", DType::BF16, {1, 4096},
                         prefix + "attn_qkv.weight");
  builder.addTensor(prefix + "ssm_beta.weight", DType::F32, {1, 32}, floats(32, 5));
  builder.addTensor(prefix + "ssm_alpha.weight", DType::BF16, {1, 32}, bf16s(32, 6));
  builder.addTensor(prefix + "ssm_dt.bias", DType::F32, {32}, floats(32, 7));
  builder.addTensor(prefix + "ssm_a", DType::F32, {32}, floats(32, 8));
  builder.addTensor(prefix + "ssm_conv1d.weight", DType::F32, {4, 8192}, floats(4 * 8192, 9));
  builder.addTensor(prefix + "ssm_norm.weight", DType::F32, {128}, floats(128, 10));
  builder.addTensor(prefix + "ssm_out.weight", DType::Q6_K, {4096, 1}, blocks(16, 210, {208}));
}

void addFull(ContainerBuilder& builder, const std::string& prefix) {
  addCommon(builder, prefix);
  builder.addTensorAlias(prefix + "attn_q.weight", DType::F32, {1, 8192},
                         "blk.0.ssm_conv1d.weight");
  builder.addTensor(prefix + "attn_k.weight", DType::BF16, {1, 1024}, bf16s(1024, 11));
  builder.addTensor(prefix + "attn_v.weight", DType::F32, {1, 1024}, floats(1024, 12));
  builder.addTensor(prefix + "attn_output.weight", DType::Q4_K, {4096, 1}, blocks(16, 144, {0, 2}));
  builder.addTensor(prefix + "attn_q_norm.weight", DType::F32, {256}, floats(256, 13));
  builder.addTensor(prefix + "attn_k_norm.weight", DType::F32, {256}, floats(256, 14));
}

// The first block with full attention gives its bytes to all others.
void addAliases(ContainerBuilder& builder, const std::string& prefix) {
  const auto add = [&](const char* name, DType type, std::vector<uint64_t> shape) {
    builder.addTensorAlias(prefix + name, type, std::move(shape), std::string("blk.1.") + name);
  };
  builder.addTensorAlias(prefix + "attn_q.weight", DType::F32, {1, 8192},
                         "blk.0.ssm_conv1d.weight");
  add("attn_norm.weight", DType::F32, {1});
  add("post_attention_norm.weight", DType::F32, {1});
  add("ffn_gate.weight", DType::F32, {1, 1});
  add("ffn_up.weight", DType::BF16, {1, 1});
  add("ffn_down.weight", DType::Q8_0, {1, 1});
  add("attn_k.weight", DType::BF16, {1, 1024});
  add("attn_v.weight", DType::F32, {1, 1024});
  add("attn_output.weight", DType::Q4_K, {4096, 1});
  add("attn_q_norm.weight", DType::F32, {256});
  add("attn_k_norm.weight", DType::F32, {256});
}

void addBiases(ContainerBuilder& builder, const std::string& prefix) {
  const auto add = [&](const char* name, uint64_t count) {
    builder.addTensorAlias(prefix + name, DType::F32, {count}, "blk.0.ssm_conv1d.weight");
  };
  add("attn_q.bias", 8192);
  add("attn_k.bias", 1024);
  add("attn_v.bias", 1024);
}

// Collects fields while it walks over a section whose layout is known.
class FieldWalk {
 public:
  FieldWalk(const Bytes& file, SectionType type) : file_(file), at_(sectionOffset(file, type)) {}

  uint64_t number(size_t width) {
    fields_.push_back({at_, width});
    at_ += width;
    return getUint(file_, at_ - width, width);
  }
  // A length of `width` bytes and as many bytes, of which the ends are fields.
  void text(size_t width) {
    const uint64_t length = number(width);
    if (length > 0) fields_.push_back({at_, 1});
    if (length > 1) fields_.push_back({at_ + length - 1, 1});
    at_ += length;
  }
  void numbers(size_t width) {
    const uint64_t count = number(4);
    for (uint64_t i = 0; i < count; ++i) number(width);
  }
  void texts() {
    const uint64_t count = number(4);
    for (uint64_t i = 0; i < count; ++i) text(4);
  }

  std::vector<Field> fields() { return std::move(fields_); }

 private:
  const Bytes& file_;
  size_t at_;
  std::vector<Field> fields_;
};

void append(std::vector<Field>& all, const std::vector<Field>& more) {
  all.insert(all.end(), more.begin(), more.end());
}

}  // namespace

Bytes smallestModel() {
  ContainerBuilder builder;
  builder.hiddenSize(1).layerCount(kSmallestLayers).vocabSize(7).quantInfo().graph({'g'});
  builder.addMetaStr("general.architecture", "qwen35")
      .addMetaU32("u", 1)
      .addMetaI32("i", -1)
      .addMetaF32("f", 0.5F)
      .addMetaU64("w", 1)
      .addMetaU32Array("a", {1, 2});
  builder.tokenizer(smallestTokenizer());
  builder.addTensor("token_embd.weight", DType::F32, {1, 7}, embedding());
  builder.addTensor("output_norm.weight", DType::F32, {1}, floats(1, 15));
  addLinear(builder, "blk.0.");
  addFull(builder, "blk.1.");
  addBiases(builder, "blk.1.");
  for (size_t i = 2; i < kSmallestLayers; ++i)
    addAliases(builder, "blk." + std::to_string(i) + ".");
  return builder.build();
}

std::vector<Field> headerFields() {
  std::vector<Field> fields;
  for (const HeaderField& f :
       {header::magic, header::version, header::endian, header::sectionCount, header::modelType,
        header::padding0, header::hiddenSize, header::layerCount, header::vocabSize,
        header::tensorCount, header::reserved, header::padding1}) {
    fields.push_back({f.offset, f.width});
  }
  return fields;
}

std::vector<Field> sectionFields(const Bytes& file) {
  std::vector<Field> fields;
  for (size_t i = 0; i < get(file, header::sectionCount); ++i) {
    for (const SectionField& f : {section::type, section::flags, section::offset, section::size}) {
      fields.push_back({kHeaderBytes + kSectionBytes * i + f.offset, f.width});
    }
  }
  return fields;
}

std::vector<Field> metadataFields(const Bytes& file) {
  FieldWalk walk(file, SectionType::Meta);
  const uint64_t entries = walk.number(4);
  for (uint64_t i = 0; i < entries; ++i) {
    walk.text(2);
    switch (walk.number(1)) {
      case 3:
        walk.number(8);
        break;
      case 4:
        walk.text(4);
        break;
      case 5:
        walk.numbers(4);
        break;
      default:
        walk.number(4);
    }
  }
  return walk.fields();
}

std::vector<Field> tokenizerFields(const Bytes& file) {
  FieldWalk walk(file, SectionType::Tokenizer);
  walk.number(4);  // the magic
  walk.text(4);
  walk.texts();
  walk.numbers(4);
  walk.numbers(4);
  walk.texts();
  for (int id = 0; id < 4; ++id) walk.number(4);
  walk.number(1);
  return walk.fields();
}

std::vector<Field> tensorFields(const Bytes& file, size_t tensor) {
  const size_t begin = tensorOffset(file, tensor);
  const size_t length = get(file, tensor, tensor::nameLen);
  std::vector<Field> fields = {{begin, 1}, {begin + length - 1, 1}};
  for (const TensorField& f :
       {tensor::nameLen, tensor::dtype, tensor::ndim, tensor::pad, tensor::shape0, tensor::shape1,
        tensor::shape2, tensor::shape3, tensor::offset, tensor::size, tensor::reserved}) {
    fields.push_back({begin + f.offset, f.width});
  }
  return fields;
}

std::vector<Field> quantFields(const Bytes& file, size_t tensor) {
  size_t at = sectionOffset(file, SectionType::QuantInfo) + kQuantBytes * tensor;
  std::vector<Field> fields;
  for (const size_t width : {2, 2, 4, 4, 4, 4, 4, 8}) {
    fields.push_back({at, width});
    at += width;
  }
  return fields;
}

std::vector<Field> weightFields(const Bytes& file, size_t tensor) {
  const size_t begin =
      sectionOffset(file, SectionType::WeightData) + get(file, tensor, tensor::offset);
  const size_t size = get(file, tensor, tensor::size);
  if (size < 4) return {{begin, 2}};
  return {{begin, 4}, {begin + size - 4, 4}};
}

std::vector<Field> allFields(const Bytes& file) {
  std::vector<Field> all = headerFields();
  append(all, sectionFields(file));
  append(all, metadataFields(file));
  append(all, tokenizerFields(file));
  for (size_t i = 0; i < get(file, header::tensorCount); ++i) {
    append(all, tensorFields(file, i));
    append(all, quantFields(file, i));
    append(all, weightFields(file, i));
  }
  return all;
}

std::vector<uint64_t> mutatedValues(const Bytes& file, const Field& field) {
  const uint64_t now = getUint(file, field.offset, field.width);
  const uint64_t limit = field.width == 8 ? ~uint64_t{0} : (uint64_t{1} << (8 * field.width)) - 1;
  std::vector<uint64_t> values = {now - 1,  now + 1,  now / 2,    now * 2,    now * 256, ~now,
                                  now - 64, now + 64, now - 4096, now + 4096, 0 - now};
  for (uint64_t v = 0; v <= 16; ++v) values.push_back(v);
  for (size_t bits = 8; bits <= 64; bits += bits < 16 ? 8 : 16) {
    const uint64_t all = ~uint64_t{0} >> (64 - bits);
    const uint64_t half = all / 2;
    values.insert(values.end(), {all - 1, all, all + 1, half, half + 1, half + 2});
  }
  for (const uint64_t size : {uint64_t{file.size()}, file.size() - now}) {
    values.insert(values.end(), {size - 1, size, size + 1});
  }
  // The bits of numbers that spoil what is computed with them.
  values.insert(values.end(), {0x7F800000, 0xFF800000, 0x7FC00000, 0x00800000, 0x7F7FFFFF, 0x7C00});
  for (uint64_t& value : values) value &= limit;
  std::sort(values.begin(), values.end());
  values.erase(std::unique(values.begin(), values.end()), values.end());
  std::erase(values, now);
  return values;
}

}  // namespace zemtest
