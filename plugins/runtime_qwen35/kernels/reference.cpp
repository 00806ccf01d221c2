// SPDX-License-Identifier: Apache-2.0
#include "kernels/reference.h"

#include <algorithm>
#include <cmath>

#include "kiv/math/exact_math.h"
#include "kiv/quant/bf16.h"

namespace qwen35::reference {

using kiv::math::expF32;

namespace {

constexpr double kRopeBaseLog = 0x1.01e3b843eaa73p+4;  // ln 1e7
constexpr float kScoreScale = 0.0625F;                 // 1 / sqrt(256)

}  // namespace

void rmsNorm(const float* x, const float* w, float* out, size_t n, float eps) {
  if (n == 0) return;
  double sum = 0;
  for (size_t i = 0; i < n; ++i) sum += static_cast<double>(x[i]) * x[i];
  const auto mean = static_cast<float>(sum / static_cast<double>(n));
  const float r = 1.0F / std::sqrt(mean + eps);
  for (size_t i = 0; i < n; ++i) out[i] = (x[i] * r) * w[i];
}

void silu(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = x[i] / (expF32(-x[i]) + 1.0F);
}

void sigmoid(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = 1.0F / (expF32(-x[i]) + 1.0F);
}

void softplus(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = x[i] > 20.0F ? x[i] : kiv::math::log1pF32(expF32(x[i]));
}

void l2NormBlocks(const float* x, float* out, size_t nBlocks, size_t blockLen, float eps) {
  for (size_t b = 0; b < nBlocks; ++b) {
    const float* in = x + b * blockLen;
    double sum = 0;
    for (size_t i = 0; i < blockLen; ++i) sum += static_cast<double>(in[i]) * in[i];
    const float r = 1.0F / std::sqrt(static_cast<float>(sum) + eps);
    for (size_t i = 0; i < blockLen; ++i) out[b * blockLen + i] = in[i] * r;
  }
}

float dotF32(const float* a, const float* b, size_t n) {
  float sum = 0;
  for (size_t i = 0; i < n; ++i) sum += a[i] * b[i];
  return sum;
}

float dotBf16(const uint16_t* w, const float* x, size_t n) {
  float sum = 0;
  for (size_t i = 0; i < n; ++i) sum += kiv::bf16ToF32(w[i]) * x[i];
  return sum;
}

void gdnStep(float* S, const float* q, const float* k, float* v, float beta, size_t d, float g,
             float scale, float* delta) {
  const float decay = expF32(g);
  for (size_t i = 0; i < d * d; ++i) S[i] *= decay;

  std::fill_n(delta, d, 0.0F);
  for (size_t i = 0; i < d; ++i) {
    for (size_t j = 0; j < d; ++j) delta[j] = std::fma(k[i], S[i * d + j], delta[j]);
  }
  for (size_t j = 0; j < d; ++j) delta[j] = (v[j] - delta[j]) * beta;

  std::fill_n(v, d, 0.0F);
  for (size_t i = 0; i < d; ++i) {
    for (size_t j = 0; j < d; ++j) {
      S[i * d + j] = std::fma(k[i], delta[j], S[i * d + j]);
      v[j] = std::fma(q[i], S[i * d + j], v[j]);
    }
  }
  for (size_t j = 0; j < d; ++j) v[j] *= scale;
}

void convStep(const float* w, size_t stride, float* window, const float* x, float* out,
              size_t channels) {
  for (size_t c = 0; c < channels; ++c) {
    const float* taps = w + c * stride;
    float* s = window + 3 * c;
    float y = 0;
    y += taps[0] * s[0];
    y += taps[1] * s[1];
    y += taps[2] * s[2];
    y += taps[3] * x[c];
    s[0] = s[1];
    s[1] = s[2];
    s[2] = x[c];
    out[c] = y / (expF32(-y) + 1.0F);
  }
}

void ropeAngles(size_t n, size_t pos, float* cosines, float* sines) {
  const double ratio = kiv::math::expF64(-2.0 / static_cast<double>(n) * kRopeBaseLog);
  auto angle = static_cast<double>(pos);
  for (size_t i = 0; i < n / 2; ++i) {
    double s = 0;
    double c = 0;
    kiv::math::sinCosF64(angle, s, c);
    cosines[i] = static_cast<float>(c);
    sines[i] = static_cast<float>(s);
    angle *= ratio;
  }
}

void ropeRotate(float* x, size_t n, const float* cosines, const float* sines) {
  const size_t half = n / 2;
  for (size_t i = 0; i < half; ++i) {
    const float a = x[i];
    const float b = x[i + half];
    x[i] = cosines[i] * a - sines[i] * b;
    x[i + half] = sines[i] * a + cosines[i] * b;
  }
}

AttentionScores attendHead(const float* query, const float* gate, const float* keys,
                           const float* values, size_t slots, size_t headDim, float* weights,
                           float* out) {
  AttentionScores scores;
  scores.max = -1e30F;
  for (size_t s = 0; s < slots; ++s) {
    weights[s] = dotF32(query, keys + s * headDim, headDim) * kScoreScale;
    if (weights[s] > scores.max) scores.max = weights[s];
  }
  for (size_t s = 0; s < slots; ++s) {
    weights[s] = expF32(weights[s] - scores.max);
    scores.sum += weights[s];
  }
  const float inverse = 1.0F / scores.sum;
  std::fill_n(out, headDim, 0.0F);
  for (size_t s = 0; s < slots; ++s) {
    const float weight = weights[s] * inverse;
    for (size_t d = 0; d < headDim; ++d) out[d] += weight * values[s * headDim + d];
  }
  for (size_t d = 0; d < headDim; ++d) out[d] = out[d] / (expF32(-gate[d]) + 1.0F);
  return scores;
}

}  // namespace qwen35::reference
