// SPDX-License-Identifier: Apache-2.0
/// \file
/// Element encodings of GGUF files, and the way from each to floats. A
/// safetensors file's F32, F16 and BF16 are the same encodings.
///
/// Pure; any thread.
#pragma once

#include <cstdint>

#include "kiv/tensor.h"

namespace kiv {

/// The codes that GGUF files use. Those of DType are others.
enum class GgufType : uint32_t {
  F32 = 0,
  F16 = 1,
  Q4_0 = 2,
  Q4_1 = 3,
  Q5_0 = 6,
  Q5_1 = 7,
  Q8_0 = 8,
  Q2_K = 10,
  Q3_K = 11,
  Q4_K = 12,
  Q5_K = 13,
  Q6_K = 14,
  IQ4_NL = 20,
  IQ4_XS = 23,
  BF16 = 30,
};

/// "F32", "Q4_K", ...; "?" for a type that is not listed above. Static storage.
const char* ggufTypeName(GgufType type);

/// Elements of one block; 0 for a type that is not listed above.
uint64_t ggufBlockSize(GgufType type);
/// Bytes of one block; 0 for a type that is not listed above.
uint64_t ggufBlockBytes(GgufType type);

/// Whether a container can hold blocks of `type` byte by byte, and as which type.
bool ggufStoredAs(GgufType type, DType& stored);

/// Expands `n` elements, a multiple of the block size, at `src` (any alignment).
/// A type that is not listed above writes nothing.
void widenGguf(GgufType type, const void* src, float* dst, uint64_t n);

}  // namespace kiv
