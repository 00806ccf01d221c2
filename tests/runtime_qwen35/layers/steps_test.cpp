#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "kernels/reference.h"
#include "kiv/math/exact_math.h"
#include "matmul/product.h"
#include "qwen35_kernels.h"
#include "qwen35_model.h"
#include "runtime_qwen35/open_model.h"
#include "support/scoped_env.h"

namespace qwen35 {
namespace {

using kiv::DType;
using testing::HasSubstr;
using zemtest::ScopedEnv;
using zemtest::TinyModel;

const float* floats(const TensorView* view) { return static_cast<const float*>(view->data); }

Floats times(OpenModel& m, const TensorView* W, const Floats& x) {
  Floats y(matrixRows(*W));
  gemvRow(m.model, W, x.data(), y.data());
  return y;
}

Floats norm(const TensorView* w, const Floats& x) {
  Floats out(x.size());
  rmsNorm(x.data(), floats(w), out.data(), x.size(), 1e-6F);
  return out;
}

Floats attend(OpenModel& m, size_t layer, const Floats& x, size_t pos) {
  Floats out(m.model.nEmb, 99.0F);
  Layer& L = m.model.L[layer];
  if (L.recr) {
    linearAttnStep(m.model, L, x.data(), out.data(), layer, pos);
  } else {
    fullAttnStep(m.model, L, x.data(), out.data(), pos, layer);
  }
  return out;
}

// A linear layer spelled out from the formulas, one token, own copy of the state.
class LinearLayer {
 public:
  LinearLayer(OpenModel& m, size_t layer, bool decays = true)
      : m_(m),
        L_(m.model.L[layer]),
        decays_(decays),
        state_(size_t{32} * 128 * 128),
        window_(size_t{8192} * 3) {}

  Floats step(const Floats& x) {
    const Floats xn = norm(L_.attn_norm, x);
    const Floats qkv = times(m_, L_.wqkv, xn);
    const Floats z = times(m_, L_.wqkv_gate, xn);
    const Floats b = times(m_, L_.beta, xn);
    const Floats a = times(m_, L_.alpha, xn);
    Floats conv(8192);
    reference::convStep(floats(L_.conv1d), L_.conv1d->shape[0], window_.data(), qkv.data(),
                        conv.data(), 8192);
    l2NormBlocks(conv.data(), conv.data(), 32, 128, 1e-6F);
    Floats o(4096);
    for (size_t h = 0; h < 32; ++h) head(h, conv, a[h], b[h], z.data() + h * 128, &o[h * 128]);
    return times(m_, L_.ssm_out, o);
  }

 private:
  void head(size_t h, Floats& conv, float a, float b, const float* z, float* o) {
    float g = a + floats(L_.dt)[h];
    softplus(&g, &g, 1);
    g = decays_ ? g * floats(L_.ssm_a)[h] : 0.0F;
    const float beta = 1.0F / (kiv::math::expF32(-b) + 1.0F);
    float* v = conv.data() + 4096 + h * 128;
    const size_t key = h % 16 * 128;
    gdnStep(&state_[h * 128 * 128], conv.data() + key, conv.data() + 2048 + key, v, beta, 128, g,
            1.0F / std::sqrt(128.0F));
    rmsNorm(v, floats(L_.ssm_norm), o, 128, 1e-6F);
    for (size_t i = 0; i < 128; ++i) o[i] = (z[i] / (kiv::math::expF32(-z[i]) + 1.0F)) * o[i];
  }

  OpenModel& m_;
  Layer& L_;
  bool decays_;
  Floats state_;
  Floats window_;
};

TEST(LinearAttnStep, FollowsItsFormulasOverSeveralTokens) {
  OpenModel m{TinyModel()};
  LinearLayer want(m, 0);
  for (size_t pos = 0; pos < 5; ++pos) {
    const Floats x = m.embedding(10 + pos);
    EXPECT_EQ(attend(m, 0, x, pos), want.step(x)) << pos;
  }
}

TEST(LinearAttnStep, KeyHeadsAreDealtOutInTurn) {
  OpenModel m{TinyModel()};
  m.model.kHeads = 2;
  m.model.vHeads = 4;
  m.model.dInner = 4 * 128;
  // With only key head 1's key non-zero, exactly value heads 1 and 3 gain state.
  const size_t channels = 4 * 128 + 2 * 2 * 128;
  Floats taps(channels * 4);
  const size_t key1 = 3 * 128;
  for (size_t c = key1; c < key1 + 128; ++c) taps[4 * c + 3] = 1;
  for (size_t c = 4 * 128; c < channels; ++c) taps[4 * c + 3] = 1;
  TensorView conv = *m.model.L[0].conv1d;
  conv.data = taps.data();
  m.model.L[0].conv1d = &conv;
  TensorView out = *m.model.L[0].ssm_out;
  out.shape[0] = m.model.dInner;
  m.model.L[0].ssm_out = &out;
  attend(m, 0, m.embedding(9), 0);
  for (size_t h = 0; h < 4; ++h) {
    double sum = 0;
    for (size_t i = 0; i < 128 * 128; ++i) sum += std::fabs(m.model.L[0].state[h * 128 * 128 + i]);
    EXPECT_EQ(sum > 0, h % 2 == 1) << h;
  }
}

TEST(LinearAttnStep, NoDecaySwitchKeepsTheStateFromDecaying) {
  OpenModel m{TinyModel()};
  const ScopedEnv env("QWEN35_NODECAY", "1");
  LinearLayer undecayed(m, 0, /*decays=*/false);
  LinearLayer decayed(m, 0);
  for (size_t pos = 0; pos < 3; ++pos) {
    const Floats x = m.embedding(10 + pos);
    const Floats out = attend(m, 0, x, pos);
    EXPECT_EQ(out, undecayed.step(x)) << pos;
    // Zero times any decay is zero, so the first token cannot tell.
    EXPECT_EQ(out == decayed.step(x), pos == 0) << pos;
  }
}

TEST(LinearAttnStep, FiveStoredTapsGiveTheSameAsFour) {
  TinyModel four;
  TinyModel five;
  auto& conv = five.tensor("blk.0.ssm_conv1d.weight");
  zemtest::Bytes wider;
  for (size_t c = 0; c < 8192; ++c) {
    const auto row = conv.data.begin() + static_cast<ptrdiff_t>(c * 16);
    wider.insert(wider.end(), row, row + 16);
    zemtest::putF32(wider, 1e9F);
  }
  conv.data = wider;
  conv.shape = {5, 8192};
  OpenModel a(four);
  OpenModel b(five);
  for (size_t pos = 0; pos < 4; ++pos) {
    const Floats x = a.embedding(20 + pos);
    EXPECT_EQ(attend(a, 0, x, pos), attend(b, 0, x, pos));
  }
}

TEST(LinearAttnStep, FirstTokenAfterResetSeesAnEmptyWindow) {
  OpenModel m{TinyModel()};
  const Floats x = m.embedding(12);
  const Floats first = attend(m, 0, x, 0);
  attend(m, 0, m.embedding(50), 1);
  resetModel(m.model);
  EXPECT_EQ(attend(m, 0, x, 0), first);
}

TEST(LinearAttnStep, TraceSwitchesPrintTheirLines) {
  OpenModel m{TinyModel()};
  const ScopedEnv dbg2("QWEN35_DBG2", "1");
  const ScopedEnv dbg4("QWEN35_DBG4", "1");
  testing::internal::CaptureStderr();
  attend(m, 0, m.embedding(12), 0);
  const std::string at0 = testing::internal::GetCapturedStderr();
  EXPECT_THAT(at0, HasSubstr("LIN S-pos=0 |S|tot "));
  EXPECT_THAT(at0, HasSubstr("    lin: |qkv|="));
  EXPECT_THAT(at0, HasSubstr("conv1d dtype=0 ndim=2 cc=8192 kk=4\n"));
  EXPECT_THAT(at0, HasSubstr("      wr[3][0..3] = "));
  testing::internal::CaptureStderr();
  attend(m, 0, m.embedding(13), 1);
  const std::string at1 = testing::internal::GetCapturedStderr();
  EXPECT_EQ(at1.find("LIN S-pos"), std::string::npos) << "only every eighth position";
  EXPECT_THAT(at1, HasSubstr("    lin: |qkv|="));
}

// A full-attention layer spelled out from the formulas, with its own cache.
class FullLayer {
 public:
  FullLayer(OpenModel& m, size_t layer) : m_(m), L_(m.model.L[layer]) {}

  Floats step(const Floats& x, size_t pos) {
    const Floats xn = norm(L_.attn_norm, x);
    Floats q = times(m_, L_.wq, xn);
    Floats k = times(m_, L_.wk, xn);
    Floats v = times(m_, L_.wv, xn);
    if (L_.qb != nullptr) {
      for (size_t i = 0; i < q.size(); ++i) q[i] += floats(L_.qb)[i];
      for (size_t i = 0; i < k.size(); ++i) k[i] += floats(L_.kb)[i];
      for (size_t i = 0; i < v.size(); ++i) v[i] += floats(L_.vb)[i];
    }
    for (size_t g = 0; g < 4; ++g) {
      const Floats rotated = rotate(norm(L_.k_norm, slice(k, g * 256)), pos);
      keys_[g].insert(keys_[g].end(), rotated.begin(), rotated.end());
      const Floats raw = slice(v, g * 256);
      values_[g].insert(values_[g].end(), raw.begin(), raw.end());
    }
    Floats o;
    for (size_t h = 0; h < 16; ++h) {
      const Floats query = rotate(norm(L_.q_norm, slice(q, h * 512)), pos);
      const Floats out = head(query, slice(q, h * 512 + 256), h / 4);
      o.insert(o.end(), out.begin(), out.end());
    }
    return times(m_, L_.wo, o);
  }

 private:
  static Floats slice(const Floats& x, size_t from) {
    return {x.begin() + static_cast<ptrdiff_t>(from),
            x.begin() + static_cast<ptrdiff_t>(from + 256)};
  }

  static Floats rotate(Floats x, size_t pos) {
    Floats c(32);
    Floats s(32);
    reference::ropeAngles(64, pos, c.data(), s.data());
    reference::ropeRotate(x.data(), 64, c.data(), s.data());
    return x;
  }

  Floats head(const Floats& query, const Floats& gate, size_t g) const {
    const size_t slots = keys_[g].size() / 256;
    Floats score(slots);
    float max = -1e30F;
    for (size_t s = 0; s < slots; ++s) {
      score[s] = dotF32(query.data(), keys_[g].data() + s * 256, 256) * 0.0625F;
      max = std::max(max, score[s]);
    }
    float sum = 0;
    for (size_t s = 0; s < slots; ++s) sum += kiv::math::expF32(score[s] - max);
    const float inverse = 1.0F / sum;
    Floats out(256);
    for (size_t d = 0; d < 256; ++d) {
      float a = 0;
      for (size_t s = 0; s < slots; ++s) {
        a += (kiv::math::expF32(score[s] - max) * inverse) * values_[g][s * 256 + d];
      }
      out[d] = a / (kiv::math::expF32(-gate[d]) + 1.0F);
    }
    return out;
  }

  OpenModel& m_;
  Layer& L_;
  Floats keys_[4];
  Floats values_[4];
};

TinyModel withBiases() {
  TinyModel tiny;
  const auto add = [&](const char* name, size_t n) {
    tiny.tensors()[name] = {DType::F32, {n}, zemtest::Bytes(n * 4)};
    for (size_t i = 0; i < n; ++i) tiny.setFloat(name, i, 0.001F * static_cast<float>(i % 97));
  };
  add("blk.1.attn_q.bias", 8192);
  add("blk.1.attn_k.bias", 1024);
  add("blk.1.attn_v.bias", 1024);
  return tiny;
}

TEST(FullAttnStep, FollowsItsFormulasOverSeveralTokens) {
  OpenModel m{TinyModel()};
  FullLayer want(m, 1);
  for (size_t pos = 0; pos < 6; ++pos) {
    const Floats x = m.embedding(10 + pos);
    EXPECT_EQ(attend(m, 1, x, pos), want.step(x, pos)) << pos;
    EXPECT_EQ(m.model.L[1].kvLen, pos + 1);
  }
}

TEST(FullAttnStep, BiasesAreAdded) {
  OpenModel m(withBiases());
  FullLayer want(m, 1);
  for (size_t pos = 0; pos < 3; ++pos) {
    const Floats x = m.embedding(10 + pos);
    EXPECT_EQ(attend(m, 1, x, pos), want.step(x, pos)) << pos;
  }
  OpenModel plain{TinyModel()};
  EXPECT_NE(attend(plain, 1, plain.embedding(10), 0), attend(m, 1, m.embedding(10), 3));
}

TEST(FullAttnStep, KeyBiasWithoutQueryBiasIsNotApplied) {
  TinyModel tiny = withBiases();
  tiny.tensors().erase("blk.1.attn_q.bias");
  OpenModel biased(tiny);
  OpenModel plain{TinyModel()};
  EXPECT_EQ(attend(biased, 1, biased.embedding(10), 0), attend(plain, 1, plain.embedding(10), 0));
}

TEST(FullAttnStep, FullCacheIsRefused) {
  OpenModel m(TinyModel(), 2);
  const Floats x = m.embedding(10);
  attend(m, 1, x, 0);
  attend(m, 1, x, 1);
  EXPECT_THROW(attend(m, 1, x, 2), std::length_error);
  EXPECT_EQ(m.model.L[1].kvLen, 2U);
}

TEST(FullAttnStep, TracePrintsEveryEighthPositionOfLayerThree) {
  OpenModel m{TinyModel()};
  const ScopedEnv env("QWEN35_DBG3", "1");
  testing::internal::CaptureStderr();
  attend(m, 3, m.embedding(10), 0);
  attend(m, 3, m.embedding(11), 1);
  attend(m, 1, m.embedding(11), 0);
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_THAT(text, HasSubstr("FULL kvLen=0 qh0: max "));
  EXPECT_THAT(text, HasSubstr(" nTok 1\n"));
  EXPECT_EQ(text.find("FULL", 1), std::string::npos) << text;
}

TEST(FfnStep, IsSwiGlu) {
  OpenModel m{TinyModel()};
  Layer& L = m.model.L[2];
  const Floats xn = m.embedding(33);
  Floats out(m.model.nEmb, 99.0F);
  ffnStep(m.model, L, xn.data(), out.data());
  const Floats gate = times(m, L.ffn_gate, xn);
  const Floats up = times(m, L.ffn_up, xn);
  Floats h(gate.size());
  for (size_t i = 0; i < h.size(); ++i) {
    h[i] = (gate[i] / (kiv::math::expF32(-gate[i]) + 1.0F)) * up[i];
  }
  EXPECT_EQ(out, times(m, L.ffn_down, h));
}

TEST(Steps, UnalignedSmallTensorsGiveTheSameBits) {
  // Every tensor moved by one byte: floats of a stranger's file may lie anywhere.
  const TinyModel tiny;
  OpenModel aligned(tiny);
  zemtest::Bytes file = tiny.build();
  zemtest::Bytes shifted = file;
  const size_t weights = zemtest::sectionOffset(file, kiv::zem2::SectionType::WeightData);
  shifted.insert(shifted.begin() + static_cast<ptrdiff_t>(weights), 1, uint8_t{0});
  const size_t weightSection = zemtest::sectionIndex(file, kiv::zem2::SectionType::WeightData);
  zemtest::set(shifted, weightSection, zemtest::section::size,
               zemtest::get(file, weightSection, zemtest::section::size) + 1);
  for (size_t i = 0; i < aligned.loader.tensorCount(); ++i) {
    zemtest::set(shifted, i, zemtest::tensor::offset,
                 zemtest::get(file, i, zemtest::tensor::offset) + 1);
  }
  zemtest::reseal(shifted);
  const zemtest::TempFile path(shifted);
  kiv::ZEMLoader loader;
  ASSERT_TRUE(loader.open(path.path()).ok());
  Model model;
  ASSERT_TRUE(initLayers(loader, model, 32) && bindModel(loader, model, 32));
  Floats x(model.nEmb);
  Floats logits(model.nVocab);
  for (size_t pos = 0; pos < 2; ++pos) {
    embedRow(model, 40 + pos, x.data());
    forwardToken(model, x.data(), pos, logits.data());
    EXPECT_EQ(logits, aligned.logits(40 + pos, pos));
  }
}

}  // namespace
}  // namespace qwen35
