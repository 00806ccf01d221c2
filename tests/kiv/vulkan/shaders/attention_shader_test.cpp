// SPDX-License-Identifier: Apache-2.0
// Attention and AttentionGemma against plain loops.
#include <algorithm>

#include "float_testing.h"

namespace zemtest {

using namespace kiv;

namespace {

using vulkan::ShaderId;

// What one query of one head sees: its first element, a row of keys and values an
// attended position, and what is added to each score.
struct View {
  const float* query = nullptr;
  std::vector<const float*> keys;
  std::vector<const float*> values;
  std::vector<float> bias;
};

// `chain` is how many weighted values are added one after the other.
void attend(const View& view, size_t headDim, double scale, size_t chain,
            std::vector<Expected>& expected) {
  std::vector<double> scores;
  double largest = -kInf;
  double error = 0;  // of a score: a rounding a product and sum, then scale and bias
  for (size_t p = 0; p < view.keys.size(); ++p) {
    double sum = 0;
    double size = 0;
    for (size_t d = 0; d < headDim; ++d) {
      const double term = static_cast<double>(view.query[d]) * view.keys[p][d];
      sum += term;
      size += std::abs(term);
    }
    scores.push_back(scale * sum + view.bias[p]);
    largest = std::max(largest, scores[p]);
    if (scores[p] == -kInf) continue;
    const double steps = static_cast<double>(headDim) / 8 + 8;
    error = std::max(error, (scale * size * steps + std::abs(view.bias[p])) * kUlp);
  }
  double total = 0;
  std::vector<double> values(headDim);
  std::vector<double> sizes(headDim);
  for (size_t p = 0; p < scores.size() && largest > -kInf; ++p) {
    const double weight = std::exp(scores[p] - largest);
    total += weight;
    // An exponential of x may be off by 3 + 2|x| units.
    const double units = weight * (3 + 2 * std::min(largest - scores[p], 100.0));
    for (size_t d = 0; d < headDim; ++d) {
      values[d] += weight * view.values[p][d];
      sizes[d] +=
          (weight * (static_cast<double>(chain) + 40) + 2 * units) * std::abs(view.values[p][d]);
    }
  }
  // Score errors reach the weights and their sum.
  for (size_t d = 0; d < headDim; ++d) {
    if (total == 0) {
      expected.push_back({0});
    } else {
      expected.push_back({values[d] / total, sizes[d] / total * (kUlp + 2 * error)});
    }
  }
}

struct AttentionShape {
  size_t heads;
  size_t kvHeads;
  size_t headDim;
  size_t positions;
};

void PrintTo(const AttentionShape& s, std::ostream* out) {
  *out << s.heads << " heads on " << s.kvHeads << " of " << s.headDim << ", " << s.positions
       << " positions";
}

class AttentionShader : public ShaderTest, public ::testing::WithParamInterface<AttentionShape> {
 protected:
  // Inputs as big as `size` make scores that differ much.
  void expectAttention(const AttentionShape& s, float size, float scale) {
    const size_t row = s.kvHeads * s.headDim;
    const std::vector<float> q = randomFloats(1, s.heads * s.headDim, -size, size);
    const std::vector<float> keys = randomFloats(2, s.positions * row, -size, size);
    const std::vector<float> values = randomFloats(3, s.positions * row, -2, 2);
    std::vector<BufferBytes> buffers = {guarded(q), guarded(keys), guarded(values),
                                        room(s.heads * s.positions), room(q.size())};
    run(ShaderId::Attention, buffers,
        {static_cast<uint32_t>(s.heads), static_cast<uint32_t>(s.kvHeads),
         static_cast<uint32_t>(s.headDim), pushFloat(scale), static_cast<uint32_t>(s.positions)},
        {static_cast<uint32_t>(s.heads) + 1});

    std::vector<Expected> expected;
    for (size_t h = 0; h < s.heads; ++h) {
      View view = {&q[h * s.headDim], {}, {}, std::vector<float>(s.positions)};
      for (size_t p = 0; p < s.positions; ++p) {
        const size_t at = p * row + h / (s.heads / s.kvHeads) * s.headDim;
        view.keys.push_back(&keys[at]);
        view.values.push_back(&values[at]);
      }
      attend(view, s.headDim, scale, s.positions / (256 / std::min<size_t>(s.headDim, 256)),
             expected);
    }
    expectResults(buffers[4], expected);
    const std::vector<float> scores = valuesOf<float>(buffers[3]);
    EXPECT_EQ(std::vector<float>(scores.end() - kGuard, scores.end()),
              std::vector<float>(kGuard, kUntouched));
  }
};

TEST_P(AttentionShader, SumsValuesByTheSoftmaxOfTheScores) {
  const AttentionShape& s = GetParam();
  expectAttention(s, 1, 1 / std::sqrt(static_cast<float>(s.headDim)));
}

TEST_P(AttentionShader, HoldsForScoresFarApart) { expectAttention(GetParam(), 4, 1); }

INSTANTIATE_TEST_SUITE_P(
    Shapes, AttentionShader,
    ::testing::Values(AttentionShape{1, 1, 1, 1}, AttentionShape{1, 1, 4, 3},
                      AttentionShape{2, 1, 5, 31}, AttentionShape{4, 2, 80, 33},
                      AttentionShape{8, 2, 128, 300}, AttentionShape{3, 3, 256, 65},
                      AttentionShape{2, 2, 300, 40}, AttentionShape{2, 1, 600, 17},
                      AttentionShape{6, 2, 64, 1025}));

using AttentionEdges = AttentionShader;

TEST_F(AttentionEdges, NoPositionsGiveZeros) {
  std::vector<BufferBytes> buffers = {guarded({1, 2, 3, 4}), guarded({}), guarded({}), room(0),
                                      room(4)};
  run(ShaderId::Attention, buffers, {2, 1, 2, pushFloat(1), 0}, {2});
  expectResults(buffers[4], {{0}, {0}, {0}, {0}});
}

TEST_F(AttentionEdges, EqualKeysGiveTheMeanOfTheValues) {
  const std::vector<float> keys(4 * 64, 3);
  std::vector<float> values;
  for (const float v : {1.0F, 2.0F, 3.0F, 6.0F}) values.insert(values.end(), 64, v);
  std::vector<BufferBytes> buffers = {guarded(std::vector<float>(64, 5)), guarded(keys),
                                      guarded(values), room(4), room(64)};
  run(ShaderId::Attention, buffers, {1, 1, 64, pushFloat(1), 4}, {1});
  expectResults(buffers[4], std::vector<Expected>(64, {3}));
}

TEST_F(AttentionEdges, AScoreThatTowersTakesAll) {
  std::vector<float> keys(3000);
  keys[1700] = 1;
  std::vector<BufferBytes> buffers = {guarded({1e4F}), guarded(keys),
                                      guarded(randomFloats(4, 3000)), room(3000), room(1)};
  run(ShaderId::Attention, buffers, {1, 1, 1, pushFloat(1), 3000}, {1});
  expectResults(buffers[4], {{randomFloats(4, 3000)[1700]}});
}

struct GemmaAttention {
  AttentionShape shape;
  size_t queries = 1;
  uint32_t firstPosition = 0;
  uint32_t window = 0;
  size_t gap = 0;  // floats between one row of the caches and the next
};

void PrintTo(const GemmaAttention& c, std::ostream* out) {
  PrintTo(c.shape, out);
  *out << ", " << c.queries << " queries from " << c.firstPosition << ", window " << c.window
       << ", gap " << c.gap;
}

// Tensors for a case: what must not be read is NaN.
struct GemmaInputs {
  explicit GemmaInputs(const GemmaAttention& c)
      : used(c.shape.kvHeads * c.shape.headDim),
        stride(used + c.gap),
        q(randomFloats(1, c.queries * c.shape.heads * c.shape.headDim, -2, 2)),
        keys(spread(randomFloats(2, c.shape.positions * used, -2, 2))),
        values(spread(randomFloats(3, c.shape.positions * used, -2, 2))),
        bias(randomFloats(4, c.shape.positions, -1, 1)) {}

  std::vector<float> spread(const std::vector<float>& rows) const {
    std::vector<float> all(rows.size() / used * stride, kNan);
    for (size_t i = 0; i < rows.size(); ++i) all[i / used * stride + i % used] = rows[i];
    return all;
  }

  size_t used;
  size_t stride;
  std::vector<float> q;
  std::vector<float> keys;
  std::vector<float> values;
  std::vector<float> bias;
};

// Vectors of four: as `guarded`, in whole vectors.
BufferBytes guardedVectors(std::vector<float> x) {
  x.resize(x.size() + 4, kNan);
  return bytesOf(x);
}

class AttentionGemmaShader : public ShaderTest,
                             public ::testing::WithParamInterface<GemmaAttention> {
 protected:
  static constexpr float kScale = 0.5F;

  static std::vector<Expected> expectedFor(const GemmaAttention& c, const GemmaInputs& in) {
    const AttentionShape& s = c.shape;
    std::vector<Expected> expected;
    for (size_t i = 0; i < c.queries * s.heads; ++i) {
      const size_t position = c.firstPosition + i / s.heads;
      const size_t column = i % s.heads / (s.heads / s.kvHeads) * s.headDim;
      View view = {&in.q[i * s.headDim], {}, {}, {}};
      for (size_t p = 0; p < s.positions && p <= position; ++p) {
        if (c.window != 0 && p + c.window <= position) continue;
        view.keys.push_back(&in.keys[p * in.stride + column]);
        view.values.push_back(&in.values[p * in.stride + column]);
        view.bias.push_back(in.bias[p]);
      }
      attend(view, s.headDim, kScale, view.keys.size() / (512 / s.headDim), expected);
    }
    return expected;
  }

  void expectAttention(const GemmaAttention& c, const GemmaInputs& in) {
    const AttentionShape& s = c.shape;
    std::vector<BufferBytes> buffers = {guarded(in.q), guardedVectors(in.keys), guarded(in.values),
                                        guarded(in.bias), room(in.q.size())};
    run(ShaderId::AttentionGemma, buffers,
        {static_cast<uint32_t>(s.headDim), static_cast<uint32_t>(s.heads),
         static_cast<uint32_t>(s.kvHeads), static_cast<uint32_t>(s.positions), pushFloat(kScale),
         static_cast<uint32_t>(in.stride), c.window, c.firstPosition},
        {static_cast<uint32_t>(s.heads) + 1, static_cast<uint32_t>(c.queries)});
    expectResults(buffers[4], expectedFor(c, in));
  }
};

TEST_P(AttentionGemmaShader, SumsTheValuesThatAQueryMaySee) {
  expectAttention(GetParam(), GemmaInputs(GetParam()));
}

TEST_P(AttentionGemmaShader, MaskedPositionsAreLeftOut) {
  GemmaInputs in(GetParam());
  for (size_t p = 0; p < in.bias.size(); ++p) {
    if (p % 3 != 1) in.bias[p] = -kInf;
  }
  expectAttention(GetParam(), in);
}

const GemmaAttention kGemmaAttentions[] = {
    {{1, 1, 4, 1}},                     // the least
    {{1, 1, 4, 7}, 7},                  // a prompt
    {{4, 2, 64, 70}, 3, 67},            // more positions than teams
    {{2, 1, 256, 300}, 2, 298, 0, 12},  // rows further apart
    {{2, 2, 512, 65}, 1, 64, 0},        // one column an invocation
    {{3, 3, 60, 40}, 5, 20, 8},         // a window
    {{2, 1, 36, 40}, 5, 0, 3, 4},       // a window that has not filled up
    {{1, 1, 8, 20}, 1, 19, 1},          // a window of the query itself
    {{1, 1, 8, 20}, 1, 19, 500},        // a window of more than there is
    {{2, 1, 8, 4096}, 1, 4095},         // one whole chunk of positions
    {{2, 1, 8, 4097}, 1, 4096},         // and one position more
    {{2, 1, 4, 9000}, 2, 8998},         // several chunks
    {{2, 1, 4, 9000}, 2, 8990, 5000},   // several chunks of a window
    {{1, 1, 8, 10}, 2, 30},             // a query behind the cache's end
    {{1, 1, 8, 10}, 2, 30, 25},         // whose window reaches the cache
};

INSTANTIATE_TEST_SUITE_P(Cases, AttentionGemmaShader, ::testing::ValuesIn(kGemmaAttentions));

using AttentionGemmaEdges = AttentionGemmaShader;

TEST_F(AttentionGemmaEdges, AWindowThatMissesTheCacheGivesZeros) {
  const GemmaAttention c = {{2, 1, 8, 10}, 2, 30, 5};
  expectAttention(c, GemmaInputs(c));
}

TEST_F(AttentionGemmaEdges, NoPositionsGiveZeros) {
  const GemmaAttention c = {{2, 1, 8, 0}, 1, 0, 0};
  expectAttention(c, GemmaInputs(c));
}

TEST_F(AttentionGemmaEdges, AQueryWithAllMaskedGivesZeros) {
  const GemmaAttention c = {{2, 1, 8, 5000}, 1, 4999, 0};
  GemmaInputs in(c);
  in.bias.assign(in.bias.size(), -kInf);
  expectAttention(c, in);
}

TEST_F(AttentionGemmaEdges, ALaterChunkMayHoldTheLargestScore) {
  const GemmaAttention c = {{1, 1, 4, 9000}, 1, 8999, 0};
  GemmaInputs in(c);
  for (size_t p = 0; p < in.bias.size(); ++p) in.bias[p] = 0.01F * static_cast<float>(p);
  expectAttention(c, in);
  std::reverse(in.bias.begin(), in.bias.end());
  expectAttention(c, in);
  for (size_t p = 0; p < 5000; ++p) in.bias[p] = -kInf;  // a whole chunk masked
  expectAttention(c, in);
}

}  // namespace
}  // namespace zemtest
