// SPDX-License-Identifier: Apache-2.0
#include "demo/demo_model.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "convert/ordered_work.h"
#include "demo/demo_vocabulary.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "kiv/dequant.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2.h"
#include "support/temp_file.h"

namespace zemtool {
namespace {

using kiv::DType;
using kiv::WeightMix;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// ---- Vocabulary ----

class DemoVocabularyTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    vocabulary_ = new DemoVocabulary(makeDemoVocabulary(0));
    tokenizer_ = new kiv::Tokenizer;
    ASSERT_TRUE(tokenizer_->load(vocabulary_->data).ok());
  }
  static void TearDownTestSuite() {
    delete tokenizer_;
    delete vocabulary_;
  }

  static std::vector<int32_t> encode(const std::string& text) {
    std::vector<int32_t> ids;
    EXPECT_TRUE(tokenizer_->encode(text, ids, true).ok());
    return ids;
  }
  static std::string throughTokens(const std::string& text) {
    std::string back;
    EXPECT_TRUE(tokenizer_->decode(encode(text), back).ok());
    return back;
  }
  static std::vector<std::string> pieces(const std::string& text) {
    std::vector<std::string> pieces;
    for (const int32_t id : encode(text))
      pieces.push_back(vocabulary_->data.tokens.at(static_cast<size_t>(id)));
    return pieces;
  }
  static float loudness(const std::string& token) {
    return vocabulary_->loudness.at(static_cast<size_t>(tokenizer_->tokenToId(token)));
  }

  static DemoVocabulary* vocabulary_;
  static kiv::Tokenizer* tokenizer_;
};

DemoVocabulary* DemoVocabularyTest::vocabulary_ = nullptr;
kiv::Tokenizer* DemoVocabularyTest::tokenizer_ = nullptr;

TEST_F(DemoVocabularyTest, PageOfVariedTextComesBack) {
  const std::string page =
      "The quick brown fox doesn't jump; it walks (slowly) to 12,345.67 rivers & \"trees\".\n"
      "\n\n  indented\twith\ttabs,  two  spaces,   three   \r\nand a DOS line end\n"
      "if (x[0] != '\\0' && y <= ~z) { return a->b % 7 ^ 0xFF; }  // `code` #1 @home $5 |x|\n"
      "Stra\u00DFe, \u00E9t\u00E9, ma\u00F1ana, sm\u00F8rrebr\u00F8d, \u017C\u00F3\u0142ty, "
      "\u011Euzel, \u1E9E, Vi\u1EC7t Nam, \u00A0non-breaking\u2003wide\n"
      "\u0395\u03BB\u03BB\u03B7\u03BD\u03B9\u03BA\u03AC, \u0440\u0443\u0441\u0441\u043A\u0438"
      "\u0439, \u05E2\u05D1\u05E8\u05D9\u05EA, "
      "\u0627\u0644\u0639\u0631\u0628\u064A\u0629, \u0939\u093F\u0928\u094D\u0926\u0940, "
      "\u0E44\u0E17\u0E22, \u10E5\u10D0\u10E0\u10D7\u10E3\u10DA\u10D8\n"
      "\u6F22\u5B57\u3068\u3072\u3089\u304C\u306A\u3001\u30AB\u30BF\u30AB\u30CA\u3002 "
      "\uD55C\uAD6D\uC5B4 \u4E2D\u6587\uFF0C\u300C\u5F15\u7528\u300D\n"
      "\u201Cquotes\u201D \u2018and\u2019 it\u2019s \u2014 dashes \u2013 \u2026 \u20AC \u00A3 "
      "\u00D7 \u00F7 \u2211 \u222B \u221E \u2192 \u2588\u2592\n"
      "\U0001F600 \U0001F44B\U0001F3FD \U0001F469\u200D\U0001F680 \u2764\uFE0F "
      "\U0001F1EA\U0001F1FA \U0001F3F4\U000E0067\U000E0062\U000E0073\U000E0063\U000E0074"
      "\U000E007F\n"
      "<|im_start|>user\nHello<|im_end|>\n<|endoftext|>";
  EXPECT_EQ(throughTokens(page), page);
}

std::string utf8(uint32_t c) {
  const auto tail = [&](int shift) { return static_cast<char>(0x80 | ((c >> shift) & 63)); };
  if (c < 0x80) return {static_cast<char>(c)};
  if (c < 0x800) return {static_cast<char>(0xC0 | (c >> 6)), tail(0)};
  if (c < 0x10000) return {static_cast<char>(0xE0 | (c >> 12)), tail(6), tail(0)};
  return {static_cast<char>(0xF0 | (c >> 18)), tail(12), tail(6), tail(0)};
}

TEST_F(DemoVocabularyTest, EveryPromisedCharacterComesBack) {
  constexpr uint32_t kRanges[][2] = {{0x20, 0x7E},     {0xA0, 0xD7FF},     {0xF900, 0xFDCF},
                                     {0xFDF0, 0xFFFD}, {0x1F000, 0x1FAFF}, {0xE0020, 0xE007F}};
  std::string text = "\t\n\r";
  size_t count = 0;
  for (const auto& range : kRanges) {
    for (uint32_t c = range[0]; c <= range[1]; ++c) {
      if (c == 0x2581) continue;  // the vocabulary's spelling of a space
      text += utf8(c);
      if (++count % 50 == 0) text += '\n';
    }
  }
  EXPECT_TRUE(throughTokens(text) == text);
}

TEST_F(DemoVocabularyTest, OtherCharactersAreDropped) {
  EXPECT_EQ(throughTokens("a\x1b[2J\x01\u0085b\U00020000c\uE000d\xFF"), "a[2Jbcd");
}

TEST_F(DemoVocabularyTest, CommonWordsAreOnePieceEach) {
  EXPECT_THAT(pieces(" the river was hello"),
              ElementsAre("\u2581the", "\u2581river", "\u2581was", "\u2581hello"));
  EXPECT_THAT(pieces("The sound"), ElementsAre("The", "\u2581sound"));
}

TEST_F(DemoVocabularyTest, EverySymbolOfAMergeIsAToken) {
  for (const std::string& merge : vocabulary_->data.merges) {
    const size_t space = merge.find(' ');
    ASSERT_NE(space, std::string::npos) << merge;
    const std::string left = merge.substr(0, space);
    const std::string right = merge.substr(space + 1);
    for (const std::string& symbol : {left, right, left + right}) {
      EXPECT_GE(tokenizer_->tokenToId(symbol), 0) << symbol;
    }
  }
}

TEST_F(DemoVocabularyTest, TokensAreUniqueAndHaveTheirTables) {
  const kiv::TokenizerData& data = vocabulary_->data;
  EXPECT_EQ(std::set<std::string>(data.tokens.begin(), data.tokens.end()).size(),
            data.tokens.size());
  EXPECT_EQ(data.tokenTypes.size(), data.tokens.size());
  EXPECT_EQ(vocabulary_->loudness.size(), data.tokens.size());
}

TEST_F(DemoVocabularyTest, SpacesAreNotByteLevel) {
  ASSERT_FALSE(vocabulary_->data.merges.empty());
  EXPECT_THAT(vocabulary_->data.merges[0], HasSubstr("\u2581"));
}

TEST_F(DemoVocabularyTest, SpecialTokensAreControlTokens) {
  const kiv::TokenizerData& data = vocabulary_->data;
  for (const char* text : {"<|im_start|>", "<|im_end|>", "<|endoftext|>"}) {
    const int32_t id = tokenizer_->tokenToId(text);
    ASSERT_GE(id, 0) << text;
    EXPECT_EQ(data.tokenTypes[static_cast<size_t>(id)], 3) << text;
    EXPECT_THAT(encode(text), ElementsAre(id));
  }
  EXPECT_EQ(std::count(data.tokenTypes.begin(), data.tokenTypes.end(), 3), 3);
  EXPECT_EQ(data.eosId, tokenizer_->tokenToId("<|endoftext|>"));
  EXPECT_EQ(data.bosId, -1);
  EXPECT_EQ(data.unkId, -1);
  EXPECT_THAT(data.chatTemplate, HasSubstr("<|im_start|>"));
}

TEST_F(DemoVocabularyTest, WordsAreLouderThanPiecesAndPiecesThanControls) {
  EXPECT_GT(loudness("\u2581river"), loudness("\u2581rive"));
  EXPECT_GT(loudness("\u2581rive"), loudness("<|endoftext|>"));
  // A word that is also the beginning of a longer one.
  EXPECT_EQ(loudness("\u2581the"), loudness("\u2581river"));
}

TEST_F(DemoVocabularyTest, FillersComeLastAndChangeNoId) {
  const size_t own = vocabulary_->data.tokens.size();
  const DemoVocabulary larger = makeDemoVocabulary(own + 1000);
  ASSERT_EQ(larger.data.tokens.size(), own + 1000);
  EXPECT_EQ(larger.loudness.size(), own + 1000);
  EXPECT_TRUE(std::equal(vocabulary_->data.tokens.begin(), vocabulary_->data.tokens.end(),
                         larger.data.tokens.begin()));
  EXPECT_EQ(larger.data.merges, vocabulary_->data.merges);
  EXPECT_EQ(larger.data.eosId, vocabulary_->data.eosId);
  EXPECT_EQ(std::set<std::string>(larger.data.tokens.begin(), larger.data.tokens.end()).size(),
            own + 1000);
}

// ---- Plan ----

const DemoTensor& tensorOf(const DemoModel& model, const std::string& name) {
  const auto found = std::find_if(model.tensors.begin(), model.tensors.end(),
                                  [&](const DemoTensor& t) { return t.name == name; });
  if (found == model.tensors.end()) throw std::out_of_range(name);
  return *found;
}

const DemoModel& tiny() {
  static const DemoModel model = planDemoModel(DemoSize::Tiny, WeightMix::Q4_K, 1);
  return model;
}

// Name, rows, row length of the matrices of one layer of each kind.
struct Matrix {
  const char* suffix;
  uint64_t rows;
  uint64_t cols;
};

std::vector<Matrix> matricesOf(bool full, uint64_t width, uint64_t feedForward) {
  std::vector<Matrix> all = {{"ffn_gate.weight", feedForward, width},
                             {"ffn_up.weight", feedForward, width},
                             {"ffn_down.weight", width, feedForward}};
  const std::vector<Matrix> ofFull = {{"attn_q.weight", 8192, width},
                                      {"attn_k.weight", 1024, width},
                                      {"attn_v.weight", 1024, width},
                                      {"attn_output.weight", width, 4096}};
  const std::vector<Matrix> ofLinear = {{"attn_qkv.weight", 8192, width},
                                        {"attn_gate.weight", 4096, width},
                                        {"ssm_beta.weight", 32, width},
                                        {"ssm_alpha.weight", 32, width},
                                        {"ssm_out.weight", width, 4096}};
  const std::vector<Matrix>& own = full ? ofFull : ofLinear;
  all.insert(all.end(), own.begin(), own.end());
  return all;
}

void expectMatrices(const DemoModel& model, const std::string& prefix, bool full, uint64_t width,
                    uint64_t feedForward) {
  for (const Matrix& matrix : matricesOf(full, width, feedForward)) {
    EXPECT_THAT(tensorOf(model, prefix + matrix.suffix).shape,
                ElementsAre(matrix.cols, matrix.rows))
        << matrix.suffix;
  }
}

TEST(DemoModelTest, FourBillionPlanHasItsShapesInEveryLayer) {
  const DemoModel model = planDemoModel(DemoSize::Full4B, WeightMix::Q4_K_M, 1);
  EXPECT_EQ(model.tokenizer.tokens.size(), 248320U);
  EXPECT_THAT(tensorOf(model, "token_embd.weight").shape, ElementsAre(2560, 248320));
  EXPECT_TRUE(model.aliases.empty());
  EXPECT_EQ(model.tensors.size(), 24U * 14 + 8 * 11 + 2);
  for (int i = 0; i < 32; ++i) {
    expectMatrices(model, "blk." + std::to_string(i) + ".", i % 4 == 3, 2560, 9216);
  }
}

struct SizeCase {
  DemoSize size;
  uint32_t layers;
  uint64_t width;
  uint64_t feedForward;
  uint64_t heads;
  uint64_t kvHeads;
  uint64_t valueHeads;
  bool ownHead;
  uint64_t weights;  // millions, rounded down
};

constexpr SizeCase kPublishedSizes[] = {
    {DemoSize::Full08B, 24, 1024, 3584, 8, 2, 16, false, 752},
    {DemoSize::Full2B, 24, 2048, 6144, 8, 2, 16, false, 1881},
    {DemoSize::Full4B, 32, 2560, 9216, 16, 4, 32, false, 4205},
    {DemoSize::Full9B, 32, 4096, 12288, 16, 4, 32, true, 8953},
};

TEST(DemoModelTest, PublishedSizesHaveTheirShapes) {
  for (const SizeCase& c : kPublishedSizes) {
    SCOPED_TRACE(demoSizeName(c.size));
    const DemoModel model = planDemoModel(c.size, WeightMix::Q4_K_M, 1);
    const kiv::Architecture& a = model.architecture;
    EXPECT_EQ(a.layers, c.layers);
    EXPECT_EQ(a.vocabulary, 248320U);
    EXPECT_EQ(a.ownHead, c.ownHead);
    EXPECT_THAT(tensorOf(model, "blk.0.ffn_up.weight").shape, ElementsAre(c.width, c.feedForward));
    EXPECT_THAT(tensorOf(model, "blk.3.attn_q.weight").shape,
                ElementsAre(c.width, 2 * c.heads * 256));
    EXPECT_THAT(tensorOf(model, "blk.3.attn_k.weight").shape,
                ElementsAre(c.width, c.kvHeads * 256));
    EXPECT_THAT(tensorOf(model, "blk.0.attn_qkv.weight").shape,
                ElementsAre(c.width, (2 * 16 + c.valueHeads) * 128));
    uint64_t weights = 0;
    size_t heads = 0;
    for (const DemoTensor& tensor : model.tensors) {
      weights += tensor.rows() * tensor.cols();
      heads += tensor.name == "output.weight" ? 1 : 0;
    }
    EXPECT_EQ(heads, c.ownHead ? 1U : 0U);
    EXPECT_EQ(weights / 1000000, c.weights);
  }
}

TEST(DemoModelTest, AnOwnHeadIsLoudAndTheEmbeddingIsNot) {
  const DemoModel model = planDemoModel(DemoSize::Full9B, WeightMix::Q4_K_M, 1);
  EXPECT_EQ(tensorOf(model, "output.weight").type, DType::Q6_K);
  EXPECT_EQ(tensorOf(model, "token_embd.weight").type, DType::Q6_K);
  const auto quiet = std::min_element(model.loudness.begin(), model.loudness.end());
  ASSERT_LT(*quiet, 0.9F);
  const auto row = static_cast<uint64_t>(quiet - model.loudness.begin());
  const auto largest = [&](const char* name) {
    std::vector<uint8_t> bytes;
    DemoTensor tensor = tensorOf(model, name);
    tensor.type = DType::F32;
    encodeDemoRows(model, tensor, row, 1, bytes);
    std::vector<float> values(bytes.size() / sizeof(float));
    std::memcpy(values.data(), bytes.data(), bytes.size());
    return *std::max_element(values.begin(), values.end()) / tensor.spread;
  };
  EXPECT_NEAR(largest("token_embd.weight"), 1.0F, 0.01F);
  EXPECT_NEAR(largest("output.weight"), *quiet, 0.01F);
}

TEST(DemoModelTest, FourBillionPlanHasItsSize) {
  const DemoModel model = planDemoModel(DemoSize::Full4B, WeightMix::Q4_K_M, 1);
  const zemtest::TempFile file;
  kiv::ZEM2Writer writer;
  declareDemoModel(model, "test", writer);
  ASSERT_TRUE(writer.begin(file.string()).ok());
  EXPECT_GT(writer.totalBytes(), 2'600'000'000U);
  EXPECT_LT(writer.totalBytes(), 2'800'000'000U);
}

TEST(DemoModelTest, TinyPlanHasTwoLayersAndNamesForThirtyTwo) {
  expectMatrices(tiny(), "blk.0.", false, 256, 512);
  expectMatrices(tiny(), "blk.3.", true, 256, 512);
  EXPECT_EQ(tiny().tensors.size(), 14U + 11 + 2);
  EXPECT_EQ(tiny().aliases.size(), 23U * 14 + 7 * 11);
  std::set<std::string> names;
  for (const auto& [name, target] : tiny().aliases) {
    names.insert(name);
    EXPECT_EQ(name.substr(name.find('.', 4)), target.substr(target.find('.', 4)));
  }
  EXPECT_TRUE(names.count("blk.31.attn_q.weight") == 1);
  EXPECT_TRUE(names.count("blk.30.ssm_out.weight") == 1);
  EXPECT_TRUE(names.count("blk.31.ssm_out.weight") == 0);
}

TEST(DemoModelTest, VectorsHaveTheirShapesAndAreF32InEveryType) {
  for (const WeightMix type : kDemoTypes) {
    const DemoModel model = planDemoModel(DemoSize::Tiny, type, 1);
    const std::pair<const char*, std::vector<uint64_t>> vectors[] = {
        {"blk.0.attn_norm.weight", {256}},
        {"blk.0.post_attention_norm.weight", {256}},
        {"blk.0.ssm_dt.bias", {32}},
        {"blk.0.ssm_a", {32}},
        {"blk.0.ssm_conv1d.weight", {4, 8192}},
        {"blk.0.ssm_norm.weight", {128}},
        {"blk.3.attn_q_norm.weight", {256}},
        {"blk.3.attn_k_norm.weight", {256}},
        {"output_norm.weight", {256}}};
    for (const auto& [name, shape] : vectors) {
      EXPECT_EQ(tensorOf(model, name).shape, shape) << name;
      EXPECT_EQ(tensorOf(model, name).type, DType::F32) << name;
    }
  }
}

TEST(DemoModelTest, PureTypesHoldForEveryMatrix) {
  constexpr DType kTypes[] = {DType::F32,  DType::BF16, DType::Q8_0,
                              DType::Q4_K, DType::Q5_K, DType::Q6_K};
  for (size_t i = 0; i < std::size(kTypes); ++i) {
    const DemoModel model = planDemoModel(DemoSize::Tiny, kDemoTypes.at(i), 1);
    EXPECT_EQ(tensorOf(model, "token_embd.weight").type, kTypes[i]);
    for (const bool full : {false, true}) {
      for (const Matrix& matrix : matricesOf(full, 256, 512)) {
        const std::string name = std::string(full ? "blk.3." : "blk.0.") + matrix.suffix;
        EXPECT_EQ(tensorOf(model, name).type, kTypes[i]) << name;
      }
    }
  }
}

TEST(DemoModelTest, MixUsesFinerTypesWhereItSays) {
  const DemoModel model = planDemoModel(DemoSize::Tiny, WeightMix::Q4_K_M, 1);
  for (const char* name : {"blk.3.attn_v.weight", "blk.0.ffn_down.weight", "blk.3.ffn_down.weight",
                           "token_embd.weight"}) {
    EXPECT_EQ(tensorOf(model, name).type, DType::Q6_K) << name;
  }
  for (const char* name : {"blk.0.ssm_alpha.weight", "blk.0.ssm_beta.weight"}) {
    EXPECT_EQ(tensorOf(model, name).type, DType::Q8_0) << name;
  }
  for (const char* name :
       {"blk.0.attn_qkv.weight", "blk.0.attn_gate.weight", "blk.0.ssm_out.weight",
        "blk.0.ffn_up.weight", "blk.3.attn_q.weight", "blk.3.attn_k.weight",
        "blk.3.attn_output.weight", "blk.3.ffn_gate.weight"}) {
    EXPECT_EQ(tensorOf(model, name).type, DType::Q4_K) << name;
  }
}

// ---- Weights ----

std::vector<uint8_t> encodeRows(const DemoModel& model, const DemoTensor& tensor, uint64_t first,
                                uint64_t count) {
  std::vector<uint8_t> bytes;
  encodeDemoRows(model, tensor, first, count, bytes);
  return bytes;
}

std::vector<float> floatsOf(const DemoModel& model, const std::string& name, uint64_t first,
                            uint64_t count) {
  DemoTensor tensor = tensorOf(model, name);
  tensor.type = DType::F32;
  const std::vector<uint8_t> bytes = encodeRows(model, tensor, first, count);
  std::vector<float> values(bytes.size() / sizeof(float));
  std::memcpy(values.data(), bytes.data(), bytes.size());
  return values;
}

TEST(DemoWeightsTest, RowsDoNotDependOnHowTheyAreCut) {
  const DemoTensor& tensor = tensorOf(tiny(), "token_embd.weight");
  const std::vector<uint8_t> whole = encodeRows(tiny(), tensor, 100, 8);
  std::vector<uint8_t> joined;
  for (const auto& [first, count] :
       {std::pair{100U, 1U}, std::pair{101U, 3U}, std::pair{104U, 4U}}) {
    const std::vector<uint8_t> part = encodeRows(tiny(), tensor, first, count);
    joined.insert(joined.end(), part.begin(), part.end());
  }
  EXPECT_EQ(joined, whole);
}

TEST(DemoWeightsTest, SeedNameAndRowAllMatter) {
  const DemoModel other = planDemoModel(DemoSize::Tiny, WeightMix::Q4_K, 2);
  const std::vector<float> base = floatsOf(tiny(), "blk.0.ffn_gate.weight", 0, 1);
  EXPECT_NE(floatsOf(other, "blk.0.ffn_gate.weight", 0, 1), base);
  EXPECT_NE(floatsOf(tiny(), "blk.0.ffn_up.weight", 0, 1), base);
  EXPECT_NE(floatsOf(tiny(), "blk.0.ffn_gate.weight", 1, 1), base);
  EXPECT_EQ(floatsOf(tiny(), "blk.0.ffn_gate.weight", 0, 1), base);
}

// Pins generator and encoder: the file of a seed stays what it is. The floats
// were computed apart from this code.
TEST(DemoWeightsTest, FirstWeightsOfSeedOneAreKnown) {
  const std::vector<float> values = floatsOf(tiny(), "blk.0.ffn_gate.weight", 0, 1);
  EXPECT_THAT(std::vector<float>(values.begin(), values.begin() + 4),
              ElementsAre(-0x1.d0bd9cp-5F, 0x1.70f66cp-4F, -0x1.8f8f56p-5F, -0x1.1f651cp-4F));
  const std::vector<uint8_t> rows =
      encodeRows(tiny(), tensorOf(tiny(), "blk.0.ffn_gate.weight"), 0, 4);
  EXPECT_EQ(kiv::zem2::crc64(rows.data(), rows.size()), 4115049569351402861U);
}

TEST(DemoWeightsTest, MatricesAreUniformAndKeepAVectorsSize) {
  const std::vector<float> values = floatsOf(tiny(), "blk.0.attn_qkv.weight", 0, 1000);
  const double limit = std::sqrt(3.0 / 256);
  double sum = 0;
  double squares = 0;
  for (const float v : values) {
    ASSERT_LE(std::abs(v), limit * 1.000001);
    sum += v;
    squares += double{v} * v;
  }
  const auto n = static_cast<double>(values.size());
  EXPECT_NEAR(sum / n, 0, 5 * limit / std::sqrt(3 * n));  // five standard errors
  EXPECT_NEAR(squares / n * 256, 1, 0.01);
}

TEST(DemoWeightsTest, VectorsLieInTheirRanges) {
  for (const float v : floatsOf(tiny(), "blk.0.ssm_a", 0, 1)) {
    EXPECT_GE(v, -8.001F);
    EXPECT_LE(v, -0.009F);
  }
  for (const char* name : {"blk.0.attn_norm.weight", "blk.3.attn_q_norm.weight"}) {
    for (const float v : floatsOf(tiny(), name, 0, 1)) EXPECT_NEAR(v, 1, 0.1001);
  }
}

TEST(DemoWeightsTest, EmbeddingRowsFollowTheLoudness) {
  const auto sizeOfRow = [](uint64_t row) {
    double squares = 0;
    for (const float v : floatsOf(tiny(), "token_embd.weight", row, 1)) squares += double{v} * v;
    return std::sqrt(squares);
  };
  for (const uint64_t row : {uint64_t{0}, uint64_t{500}, uint64_t{20000},
                             static_cast<uint64_t>(tiny().tokenizer.eosId)}) {
    EXPECT_NEAR(sizeOfRow(row) / tiny().loudness[row], 1, 0.15) << row;
  }
}

TEST(DemoWeightsTest, EveryTypeHoldsTheSameWeights) {
  const std::vector<float> wanted = floatsOf(tiny(), "blk.0.ffn_gate.weight", 5, 1);
  const float limit = *std::max_element(wanted.begin(), wanted.end());
  const auto decode = [&](DType type, const std::vector<uint8_t>& bytes) {
    std::vector<float> out(wanted.size());
    switch (type) {
      case DType::Q8_0:
        kiv::quant::dequantQ80(bytes.data(), out.data(), out.size());
        break;
      case DType::Q4_K:
        kiv::quant::dequantQ4K(bytes.data(), out.data(), out.size());
        break;
      case DType::Q5_K:
        kiv::quant::dequantQ5K(bytes.data(), out.data(), out.size());
        break;
      case DType::Q6_K:
        kiv::quant::dequantQ6K(bytes.data(), out.data(), out.size());
        break;
      default:
        for (size_t i = 0; i < out.size(); ++i) {
          uint32_t bits = bytes[2 * i] * 0x10000U + bytes[2 * i + 1] * 0x1000000U;
          std::memcpy(&out[i], &bits, sizeof(bits));
        }
    }
    return out;
  };
  const std::pair<DType, float> steps[] = {{DType::BF16, 1.0F / 256},
                                           {DType::Q8_0, 1.0F / 120},
                                           {DType::Q4_K, 0.1F},
                                           {DType::Q5_K, 0.05F},
                                           {DType::Q6_K, 0.03F}};
  for (const auto& [type, part] : steps) {
    DemoTensor tensor = tensorOf(tiny(), "blk.0.ffn_gate.weight");
    tensor.type = type;
    const std::vector<float> got = decode(type, encodeRows(tiny(), tensor, 5, 1));
    for (size_t i = 0; i < wanted.size(); ++i) {
      ASSERT_NEAR(got[i], wanted[i], limit * part) << kiv::dtypeName(type) << " " << i;
    }
  }
}

// ---- Ordered work ----

TEST(OrderedWorkTest, ResultsComeInOrderForAnyNumberOfThreads) {
  for (const size_t threads : {0U, 1U, 2U, 7U}) {
    std::vector<size_t> seen;
    runOrdered(
        100, threads,
        [](size_t job, std::vector<uint8_t>& bytes) {
          bytes.assign(job + 1, static_cast<uint8_t>(job));
        },
        [&](size_t job, const std::vector<uint8_t>& bytes) {
          EXPECT_EQ(bytes.size(), job + 1);
          EXPECT_THAT(bytes, Each(static_cast<uint8_t>(job)));
          seen.push_back(job);
        });
    ASSERT_EQ(seen.size(), 100U);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
  }
}

TEST(OrderedWorkTest, NoJobsCallNothing) {
  runOrdered(
      0, 4, [](size_t, std::vector<uint8_t>&) { ADD_FAILURE(); },
      [](size_t, const std::vector<uint8_t>&) { ADD_FAILURE(); });
}

TEST(OrderedWorkTest, ProducersStayThreeResultsAThreadAhead) {
  std::atomic<size_t> produced{0};
  size_t consumed = 0;
  size_t ahead = 0;
  runOrdered(
      200, 2, [&](size_t, std::vector<uint8_t>&) { ++produced; },
      [&](size_t, const std::vector<uint8_t>&) {
        ahead = std::max(ahead, produced - consumed);
        ++consumed;
      });
  EXPECT_LE(ahead, 6U);
  EXPECT_EQ(produced, 200U);
}

TEST(OrderedWorkTest, ExceptionOfAProducerReachesTheCaller) {
  const auto produce = [](size_t job, std::vector<uint8_t>&) {
    if (job == 17) throw std::runtime_error("job 17");
  };
  EXPECT_THROW(runOrdered(1000, 3, produce, [](size_t, const std::vector<uint8_t>&) {}),
               std::runtime_error);
}

TEST(OrderedWorkTest, ExceptionOfTheConsumerEndsTheWork) {
  std::atomic<size_t> produced{0};
  const auto consume = [](size_t job, const std::vector<uint8_t>&) {
    if (job == 5) throw std::runtime_error("job 5");
  };
  EXPECT_THROW(runOrdered(
                   1'000'000, 3, [&](size_t, std::vector<uint8_t>&) { ++produced; }, consume),
               std::runtime_error);
  EXPECT_LE(produced, 5U + 9);
}

}  // namespace
}  // namespace zemtool
