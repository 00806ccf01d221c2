// SPDX-License-Identifier: Apache-2.0
/// \file
/// Arithmetic of the decoder over plain float arrays.
///
/// The order of every sum is part of the result. Each function gives the bits of its
/// plain loop in kernels/reference.h, whatever the instruction set or the number of
/// threads. The two matrix-vector products share large matrices out over the OpenMP
/// team; everything else is serial. All are reentrant.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qwen35 {

/// Round to nearest, ties to even, on the bit pattern; NaN and infinity get no
/// special treatment.
uint16_t f32ToBf16(float f);
/// Widens a brain float, which is exact.
float bf16ToF32(uint16_t h);

/// out[i] = (x[i] * r) * w[i] with r = 1 / sqrt(mean(x^2) + eps); the mean is
/// taken in double (Zhang and Sennrich, 2019). In place allowed.
void rmsNorm(const float* x, const float* w, float* out, size_t n, float eps);

/// out[i] = x / (e^-x + 1) of each x[i]. In place allowed.
void silu(const float* x, float* out, size_t n);
/// out[i] = 1 / (e^-x + 1) of each x[i]. In place allowed.
void sigmoid(const float* x, float* out, size_t n);
/// out[i] = log(1 + e^x) of each x[i], x itself above 20. In place allowed.
void softplus(const float* x, float* out, size_t n);

/// Scales each of `nBlocks` blocks of `blockLen` values by 1 / sqrt(sum of
/// squares + eps), the sum taken in double. In place allowed.
void l2NormBlocks(const float* x, float* out, size_t nBlocks, size_t blockLen, float eps);

/// y[r] += sum over c of W[r * cols + c] * x[c], each row summed in float from
/// column 0 upward and then added to y[r]. Rows are split over the OpenMP team.
void matvecBf16Add(const uint16_t* W, const float* x, float* y, size_t rows, size_t cols);
/// As matvecBf16Add, for a matrix of floats.
void matvecF32Add(const float* W, const float* x, float* y, size_t rows, size_t cols);

/// Float sum from index 0 upward; 0 for n = 0.
float dotF32(const float* a, const float* b, size_t n);

/// One step of the gated delta rule (Yang et al., "Gated Delta Networks", 2024)
/// for one head: S is d x d with row = key component, column = value component.
///   S *= e^g;  delta = (v - S^T k) * beta;  S += k delta^T;  v = (S^T q) * scale
/// The output overwrites `v`, although it is passed as const: callers hand in a
/// scratch copy and read the result there. Throws std::length_error when d * d
/// floats exceed the address space.
void gdnStep(float* S, const float* q, const float* k, const float* v, float beta, size_t d,
             float g, float scale);

}  // namespace qwen35
