// SPDX-License-Identifier: Apache-2.0
// Softmax attention over pages on a device against that of the CPU.
#include <cmath>
#include <cstring>
#include <ostream>

#include "engine/model/paged_attention.h"
#include "engine/vulkan/step_shaders.h"
#include "kernels/reference.h"
#include "kiv/quant.h"
#include "kiv/vulkan/shaders/float_testing.h"
#include "qwen35_model.h"
#include "support/k_matrix.h"
#include "support/shader_runner.h"

namespace zemtest {
namespace {

using qwen35::Activations;
using zem::CacheType;
using zem::kPagePositions;
using zem::StepShader;
namespace reference = qwen35::reference;

struct Attention {
  zem::AttentionSizes sizes;
  uint32_t rotary;
  CacheType type;
};
void PrintTo(const Attention& a, std::ostream* out) {
  *out << a.sizes.heads << '/' << a.sizes.kvHeads << " heads of " << a.sizes.headSize
       << (a.type == CacheType::F16 ? ", half" : "");
}

// Pages of one layer in the order 3, 0, 2, ..., so that a wrong table is noticed.
constexpr uint32_t kPageCount = 6;
constexpr uint32_t kSplits = 3;
const std::vector<uint32_t> kTable = {9, 9, 3, 0, 2, 5, 1, 4};  // from entry 2 on
constexpr uint32_t kFirstEntry = 2;

class AttentionShaders : public ShaderTest, public ::testing::WithParamInterface<Attention> {
 protected:
  AttentionShaders()
      : sizes_(GetParam().sizes), layout_(shape(), 1, GetParam().type), pool_(layout_) {}

  static zem::Shape shape() {
    zem::Shape shape;
    shape.heads = GetParam().sizes.heads;
    shape.kvHeads = GetParam().sizes.kvHeads;
    shape.headSize = GetParam().sizes.headSize;
    return shape;
  }
  static uint32_t word(size_t value) { return static_cast<uint32_t>(value); }
  bool half() const { return GetParam().type == CacheType::F16; }

  // A cache with random numbers at the first `positions`, and NaN in the rest.
  void fill(size_t positions) {
    pages_.clear();
    const size_t size = sizes_.headSize;
    for (size_t p = 0; p < positions; ++p) {
      if (p % kPagePositions == 0) {
        pages_.push_back(pool_.make());
        std::memset(pages_.back()->data(), 0xff, layout_.bytes());
      }
      for (size_t head = 0; head < sizes_.kvHeads; ++head) {
        const std::vector<float> key = randomVector(size, word(17 * p + head));
        const std::vector<float> value = randomVector(size, word(17 * p + head + 7000));
        pages_.back()->store(layout_, 0, head, p % kPagePositions, key.data(), value.data());
      }
    }
  }
  BufferBytes onDevice() const {
    BufferBytes bytes(kPageCount * layout_.bytes(), 0xff);
    for (size_t i = 0; i < pages_.size(); ++i) {
      std::memcpy(bytes.data() + kTable[kFirstEntry + i] * layout_.bytes(), pages_[i]->data(),
                  layout_.bytes());
    }
    return bytes;
  }

  // The device's pages hold what those of the CPU hold, but for the rounding of keys.
  void expectCache(const BufferBytes& actual) const {
    const BufferBytes wanted = onDevice();
    ASSERT_EQ(actual.size(), wanted.size());
    if (half()) {
      const std::vector<uint16_t> a = valuesOf<uint16_t>(actual);
      const std::vector<uint16_t> w = valuesOf<uint16_t>(wanted);
      size_t apart = 0;
      for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] == w[i]) continue;
        ++apart;
        ASSERT_NEAR(kiv::quant::f16ToF32(a[i]), kiv::quant::f16ToF32(w[i]), 2e-3) << i;
      }
      EXPECT_LE(apart, a.size() / 1000);
      return;
    }
    const std::vector<float> a = valuesOf<float>(actual);
    const std::vector<float> w = valuesOf<float>(wanted);
    for (size_t i = 0; i < a.size(); ++i) {
      if (std::isnan(w[i])) {
        ASSERT_TRUE(std::isnan(a[i])) << i;
      } else {
        ASSERT_NEAR(a[i], w[i], 2e-6) << i;
      }
    }
  }

  const zem::AttentionSizes& sizes_;
  zem::PageLayout layout_;
  zem::PagePool pool_;
  std::vector<std::shared_ptr<zem::Page>> pages_;
};

INSTANTIATE_TEST_SUITE_P(Each, AttentionShaders,
                         ::testing::Values(Attention{{1, 1, 32}, 2, CacheType::F32},
                                           Attention{{6, 2, 32}, 8, CacheType::F16},
                                           Attention{{7, 1, 96}, 96, CacheType::F32},
                                           Attention{{5, 1, 224}, 64, CacheType::F16},
                                           Attention{{6, 1, 256}, 64, CacheType::F16},
                                           Attention{{8, 2, 256}, 64, CacheType::F32}));

TEST_P(AttentionShaders, MixTheValuesOfAllPositionsUpToTheirOwn) {
  for (const uint32_t positions : {1U, 2U, 63U, 64U, 65U, 200U, 384U}) {
    fill(positions);
    // The last token and, where there is one, the token before it.
    const uint32_t tokens = std::min(positions, 2U);
    const uint32_t first = positions - tokens;
    const size_t size = sizes_.headSize;
    Activations q{2 * sizes_.heads * size,
                  randomVector(tokens * 2 * sizes_.heads * size, positions)};
    std::vector<uint32_t> rows;
    for (uint32_t t = 0; t < tokens; ++t) rows.insert(rows.end(), {5, first + t, kFirstEntry, 5});
    const size_t parts = tokens * sizes_.heads * kSplits * (size + 2);
    std::vector<BufferBytes> buffers = {bytesOf(rows), bytesOf(kTable), guarded(q.values),
                                        onDevice(), room(parts)};
    const uint32_t packs = ceilDiv(sizes_.heads / sizes_.kvHeads, 4);
    run(zem::stepShader(half() ? StepShader::AttentionPartsF16 : StepShader::AttentionPartsF32),
        buffers, {word(sizes_.heads), word(sizes_.kvHeads), word(size), kSplits},
        {word(sizes_.kvHeads) * packs, kSplits, tokens});
    std::vector<BufferBytes> joined = {buffers[4], guarded(q.values),
                                       room(tokens * sizes_.heads * size)};
    run(zem::stepShader(StepShader::AttentionJoin), joined,
        {word(sizes_.heads), word(size), kSplits}, {word(sizes_.heads), 1, tokens});

    Activations o{sizes_.heads * size, std::vector<float>(tokens * sizes_.heads * size)};
    std::vector<float> scratch;
    zem::pagedAttention(sizes_, layout_, 0, {pages_, first, 0, tokens}, q, o, scratch);
    std::vector<Expected> expected;
    for (const float value : o.values) expected.push_back({value, 3e-6});
    SCOPED_TRACE(positions);
    expectResults(joined[2], expected);
  }
}

TEST_P(AttentionShaders, NormaliseTurnAndStoreTheirInputs) {
  // Positions 62 to 65: two pages, and halves of one word from two tokens.
  constexpr uint32_t kTokens = 4;
  constexpr uint32_t kFirst = 62;
  const size_t size = sizes_.headSize;
  const uint32_t rotary = GetParam().rotary;
  fill(128);
  const std::vector<float> queryNorm = randomVector(size, 1);
  const std::vector<float> keyNorm = randomVector(size, 2);
  std::vector<float> q = randomVector(kTokens * sizes_.heads * 2 * size, 3);
  std::vector<float> keys = randomVector(kTokens * sizes_.kvHeads * size, 4);
  const std::vector<float> values = randomVector(kTokens * sizes_.kvHeads * size, 5);
  std::vector<float> cosines(kTokens * rotary / 2);
  std::vector<float> sines(cosines.size());
  std::vector<float> turns;
  std::vector<uint32_t> rows;
  for (uint32_t t = 0; t < kTokens; ++t) {
    const size_t at = t * rotary / 2;
    reference::ropeAngles(rotary, kFirst + t, &cosines[at], &sines[at]);
    for (size_t i = at; i < at + rotary / 2; ++i) {
      turns.insert(turns.end(), {cosines[i], sines[i]});
    }
    rows.insert(rows.end(), {5, kFirst + t, kFirstEntry, 5});
  }
  std::vector<BufferBytes> buffers = {bytesOf(rows),      bytesOf(kTable),  guarded(turns),
                                      changeable(q),      guarded(keys),    guarded(values),
                                      guarded(queryNorm), guarded(keyNorm), onDevice()};
  run(zem::stepShader(half() ? StepShader::AttentionInputsF16 : StepShader::AttentionInputsF32),
      buffers,
      {word(sizes_.heads), word(sizes_.kvHeads), word(size), rotary, pushFloat(qwen35::kNormEps)},
      {word(sizes_.heads + sizes_.kvHeads), 1, kTokens});

  const auto prepare = [&](float* head, const std::vector<float>& norm, size_t t) {
    reference::rmsNorm(head, norm.data(), head, size, qwen35::kNormEps);
    reference::ropeRotate(head, rotary, &cosines[t * rotary / 2], &sines[t * rotary / 2]);
  };
  for (size_t t = 0; t < kTokens; ++t) {
    for (size_t h = 0; h < sizes_.heads; ++h) {
      prepare(&q[(t * sizes_.heads + h) * 2 * size], queryNorm, t);
    }
    for (size_t h = 0; h < sizes_.kvHeads; ++h) {
      float* key = &keys[(t * sizes_.kvHeads + h) * size];
      prepare(key, keyNorm, t);
      pages_[(kFirst + t) / kPagePositions]->store(layout_, 0, h, (kFirst + t) % kPagePositions,
                                                   key, &values[(t * sizes_.kvHeads + h) * size]);
    }
  }
  std::vector<Expected> expected;
  for (const float value : q) expected.push_back({value, 2e-6});
  expectResults(buffers[3], expected);
  expectCache(buffers[8]);
}

}  // namespace
}  // namespace zemtest
