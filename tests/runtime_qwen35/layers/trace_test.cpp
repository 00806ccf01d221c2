// SPDX-License-Identifier: Apache-2.0
// What the diagnostic variables print and dump, number by number.
#include "layers/trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "qwen35_kernels.h"
#include "qwen35_model.h"
#include "runtime_qwen35/open_model.h"
#include "runtime_qwen35/plain_layers.h"
#include "support/scoped_env.h"
#include "support/temp_file.h"

namespace qwen35 {
namespace {

using zemtest::ScopedEnv;
using zemtest::TinyModel;

std::string stderrOf(const auto& run) {
  testing::internal::CaptureStderr();
  run();
  return testing::internal::GetCapturedStderr();
}

template <typename... Values>
std::string printed(const char* format, Values... values) {
  char text[512];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

// Euclidean.
double length(const Floats& x) {
  double sum = 0;
  for (const float v : x) sum += static_cast<double>(v) * v;
  return std::sqrt(sum);
}

Floats hidden(OpenModel& m, size_t token, size_t pos) {
  Floats out(m.model.nEmb);
  forwardTokenHidden(m.model, m.embedding(token).data(), pos, out.data());
  return out;
}

TEST(Trace, NothingIsPrintedWithoutAVariable) {
  OpenModel m{TinyModel()};
  EXPECT_EQ(stderrOf([&] {
              hidden(m, 30, 0);
              m.logits(31, 1);
            }),
            "");
}

// QWEN35_DBG2: layer 0, every token.
TEST(Trace, LinearLineHasTheNormsOfItsStages) {
  OpenModel m{TinyModel()};
  LinearLayer want(m, 0);
  const ScopedEnv env("QWEN35_DBG2", "1");
  for (size_t pos = 0; pos < 3; ++pos) {
    const Floats x = m.embedding(10 + pos);
    Floats out;
    const std::string text = stderrOf([&] { out = attend(m, 0, x, pos); });
    ASSERT_EQ(out, want.step(x));
    const LinearLayer::Seen& seen = want.seen();
    std::string expected = printed(
        "    lin: |qkv|=%.3e |z|=%.3e |conv|=%.3e bv0=%.4f av0=%.4f |oTpre|=%.3e |oT|=%.3e "
        "|out|=%.3e conv1d dtype=0 ndim=2 cc=8192 kk=4\n",
        length(seen.qkv), length(seen.z), length(seen.conv), static_cast<double>(seen.beta),
        static_cast<double>(seen.g), length(seen.oPre), length(seen.o), length(out));
    const float* w = floats(m.model.L[0].conv1d);
    for (size_t r = 0; r < 4; ++r, w += 4) {
      expected +=
          printed("      wr[%zu][0..3] = %.6e %.6e %.6e %.6e\n", r, static_cast<double>(w[0]),
                  static_cast<double>(w[1]), static_cast<double>(w[2]), static_cast<double>(w[3]));
    }
    EXPECT_EQ(text, expected) << pos;
  }
}

TEST(Trace, LinearLineIsOfLayerZeroOnly) {
  zemtest::TinyModelOptions options;
  options.linearLayers = {0, 2};
  OpenModel m{TinyModel(options)};
  const ScopedEnv dbg2("QWEN35_DBG2", "1");
  const ScopedEnv dbg4("QWEN35_DBG4", "1");
  EXPECT_EQ(stderrOf([&] { attend(m, 2, m.embedding(12), 0); }), "");
}

// QWEN35_DBG4: layer 0, every eighth position.
TEST(Trace, StateLineHasTheNormsOfTheState) {
  OpenModel m{TinyModel()};
  LinearLayer want(m, 0);
  const ScopedEnv env("QWEN35_DBG4", "1");
  for (size_t pos = 0; pos < 9; ++pos) {
    const Floats x = m.embedding(10 + pos);
    const std::string text = stderrOf([&] { attend(m, 0, x, pos); });
    want.step(x);
    const Floats& state = want.state();
    const Floats head0(state.begin(), state.begin() + 128 * 128);
    const std::string expected =
        printed("LIN S-pos=%zu |S|tot %.4e head0 %.4e |oT| %.3e av0 %.4f bv0 %.4f\n", pos,
                length(state), length(head0), length(want.seen().o),
                static_cast<double>(want.seen().g), static_cast<double>(want.seen().beta));
    EXPECT_EQ(text, pos % 8 == 0 ? expected : "") << pos;
  }
}

// QWEN35_DBG3: layer 3, every eighth position.
TEST(Trace, ScoresLineHasTheSoftmaxOfHeadZero) {
  OpenModel m{TinyModel()};
  FullLayer want(m, 3);
  const ScopedEnv env("QWEN35_DBG3", "1");
  for (size_t pos = 0; pos < 9; ++pos) {
    const Floats x = m.embedding(10 + pos);
    const std::string text = stderrOf([&] { attend(m, 3, x, pos); });
    want.step(x, pos);
    const double entropy = std::log(static_cast<double>(want.sum())) + want.max() + 1e-9;
    const std::string expected = printed("FULL kvLen=%zu qh0: max %.3f ent %.4f nTok %zu\n", pos,
                                         static_cast<double>(want.max()), entropy, pos + 1);
    EXPECT_EQ(text, pos % 8 == 0 ? expected : "") << pos;
  }
  EXPECT_EQ(stderrOf([&] { attend(m, 1, m.embedding(11), 0); }), "") << "layer 1";
}

// Layer by layer over the public steps: the buffers of each.
struct LayerBuffers {
  Floats in, attn, h, hn, ffn, out;
};

std::vector<LayerBuffers> buffersOf(OpenModel& m, const Floats& x, size_t pos) {
  std::vector<LayerBuffers> all;
  Floats cur = x;
  for (size_t il = 0; il < m.model.nLayers; ++il) {
    LayerBuffers b{cur, attend(m, il, cur, pos), {}, {}, Floats(x.size()), {}};
    b.h = b.in;
    for (size_t i = 0; i < x.size(); ++i) b.h[i] += b.attn[i];
    b.hn = normed(m.model.L[il].post_norm, b.h);
    ffnStep(m.model, m.model.L[il], b.hn.data(), b.ffn.data());
    b.out = b.h;
    for (size_t i = 0; i < x.size(); ++i) b.out[i] += b.ffn[i];
    cur = b.out;
    all.push_back(b);
  }
  return all;
}

// QWEN35_DBG: every layer of the first token, and the whole at its end.
TEST(Trace, LayerLinesHaveTheNormsOfTheFirstToken) {
  const TinyModel tiny;
  OpenModel hand(tiny);
  const Floats x = hand.embedding(30);
  const std::vector<LayerBuffers> layers = buffersOf(hand, x, 0);
  std::string expected;
  for (size_t il = 0; il < layers.size(); ++il) {
    const LayerBuffers& b = layers[il];
    expected += printed("  L%02zu %s |x|=%7.3f |attn|=%.3e |xnorm|=  0.000\n", il,
                        il == 0 ? "lin" : "ful", length(b.in), length(b.attn));
    expected += printed("        |ffn|=%.3e\n", length(b.ffn));
  }
  const Floats& cur = layers.back().out;
  double dot = 0;
  for (size_t i = 0; i < x.size(); ++i) dot += static_cast<double>(x[i]) * cur[i];
  expected += printed("  final |orig|=%.3f |cur|=%.3f cos(orig,cur)=%.4f\n", length(x), length(cur),
                      dot / (length(x) * length(cur)));

  OpenModel m(tiny);
  const ScopedEnv env("QWEN35_DBG", "1");
  EXPECT_EQ(stderrOf([&] { m.logits(30, 0); }), expected);
  EXPECT_EQ(stderrOf([&] { m.logits(30, 1); }), "");
  EXPECT_EQ(stderrOf([&] { hidden(m, 30, 0); }), "");
}

// QWEN35_TIMING: milliseconds, rounded to whole ones.
TEST(Trace, TimesOfTheStepsAreWithinTheTotal) {
  OpenModel m{TinyModel()};
  const ScopedEnv env("QWEN35_TIMING", "1");
  const std::string text = stderrOf([&] { hidden(m, 30, 0); });
  double total = 0, lin = 0, full = 0, norm = 0, ffn = 0;
  int end = 0;
  ASSERT_EQ(std::sscanf(text.c_str(),
                        "[timing] hidden fwd pos=0 %lf ms (lin %lf full %lf norm %lf ffn %lf)\n%n",
                        &total, &lin, &full, &norm, &ffn, &end),
            5)
      << text;
  EXPECT_EQ(static_cast<size_t>(end), text.size()) << text;
  EXPECT_LE(lin + full + norm + ffn, total + 2.5);
  EXPECT_GT(total, 0) << "31 layers of softmax attention";
  EXPECT_EQ(stderrOf([&] { m.logits(30, 1); }), "");
}

struct Record {
  uint32_t pos = 0;
  std::string name;
  Floats values;
};

std::vector<Record> readDump(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  std::vector<Record> records;
  for (size_t at = 0; at < bytes.size();) {
    Record r;
    uint32_t length = 0;
    uint64_t count = 0;
    std::memcpy(&r.pos, bytes.data() + at, 4);
    std::memcpy(&length, bytes.data() + at + 4, 4);
    r.name = bytes.substr(at + 8, length);
    std::memcpy(&count, bytes.data() + at + 8 + length, 8);
    r.values.resize(count);
    std::memcpy(r.values.data(), bytes.data() + at + 16 + length, 4 * count);
    at += 16 + length + 4 * count;
    records.push_back(std::move(r));
  }
  return records;
}

std::string layerName(size_t il, const char* what) { return "S" + std::to_string(il) + "." + what; }

TEST(HiddenDump, HoldsEveryBufferOfEveryLayerAndTheResult) {
  const zemtest::TempFile path;
  const TinyModel tiny;
  OpenModel m(tiny);
  {
    const ScopedEnv env("QWEN35_HID_DUMP", path.path());
    m.logits(30, 0);
    m.logits(31, 1);
    hidden(m, 32, 2);
  }
  const std::vector<Record> records = readDump(path.string());
  ASSERT_EQ(records.size(), 2U * (5 * 32 + 1)) << "the hidden pass writes none";
  OpenModel hand(tiny);
  for (uint32_t pos = 0; pos < 2; ++pos) {
    const Record* record = &records[pos * (5 * 32 + 1)];
    const auto expectNext = [&](const std::string& name, const Floats& values) {
      EXPECT_EQ(record->pos, pos);
      EXPECT_EQ(record->name, name);
      EXPECT_EQ(record->values, values) << name;
      ++record;
    };
    const std::vector<LayerBuffers> layers = buffersOf(hand, hand.embedding(30 + pos), pos);
    for (size_t il = 0; il < layers.size(); ++il) {
      expectNext(layerName(il, "attn_mm"), layers[il].attn);
      expectNext(layerName(il, "attn_res"), layers[il].h);
      expectNext(layerName(il, "post_norm"), layers[il].hn);
      expectNext(layerName(il, "ffn_mm"), layers[il].ffn);
      expectNext(layerName(il, "layer_out"), layers[il].out);
    }
    expectNext("result_norm", layers.back().out);  // before the final norm, whatever its name
  }
}

TEST(HiddenDump, FileThatCannotBeOpenedChangesNothing) {
  const TinyModel tiny;
  OpenModel plain(tiny);
  const Floats want = plain.logits(30, 0);
  OpenModel m(tiny);
  const ScopedEnv env("QWEN35_HID_DUMP", "/nonexistent/folder/dump");
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(m.logits(30, 0), want); }), "");
}

// A GPU that declines everything and counts what it was offered: once a product for tokens that
// go together, once a token for others.
struct DecliningGpu {
  size_t offers = 0;

  static bool decline(void* self, const TensorView* /*W*/, const float* /*x*/, float* /*y*/) {
    ++static_cast<DecliningGpu*>(self)->offers;
    return false;
  }
};

size_t offersOfARun(const TinyModel& tiny, size_t tokens) {
  OpenModel m(tiny);
  DecliningGpu gpu;
  m.model.gpuCtx = &gpu;
  m.model.gpuGemvRow = DecliningGpu::decline;
  Floats x;
  for (size_t t = 0; t < tokens; ++t) {
    const Floats token = m.embedding(20 + t);
    x.insert(x.end(), token.begin(), token.end());
  }
  Floats out(x.size());
  stderrOf([&] { forwardTokensHidden(m.model, x.data(), tokens, 0, out.data()); });
  return gpu.offers;
}

class DiagnosticVariable : public testing::TestWithParam<const char*> {};

TinyModel quantisedModel() {
  zemtest::TinyModelOptions options;
  options.width = 256;
  options.feedForward = 256;
  options.matrixType = kiv::DType::Q4_K;
  return TinyModel(options);
}

TEST_P(DiagnosticVariable, MakesTokensGoOneByOne) {
  static const TinyModel tiny = quantisedModel();
  static const size_t single = offersOfARun(tiny, 1);
  ASSERT_GT(single, 100U);
  ASSERT_EQ(offersOfARun(tiny, 3), single) << "together";
  const ScopedEnv env(GetParam(), "1");
  EXPECT_EQ(offersOfARun(tiny, 3), 3 * single);
}

INSTANTIATE_TEST_SUITE_P(Variables, DiagnosticVariable,
                         testing::Values("QWEN35_ABLATE", "QWEN35_DBG", "QWEN35_DBG2",
                                         "QWEN35_DBG3", "QWEN35_DBG4", "QWEN35_HID_DUMP",
                                         "QWEN35_TIMING", "QWEN35_NODECAY"),
                         [](const auto& variable) { return std::string(variable.param); });

}  // namespace
}  // namespace qwen35
