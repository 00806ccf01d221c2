// The gated delta-rule step, compiled for several instruction sets.
#pragma once

#include <cstddef>
#include <span>

namespace qwen35 {

// All variants give the bits of reference::gdnStep, whose arguments they take.
struct GdnVariant {
  const char* name;
  bool (*supported)();  // by this processor
  void (*step)(float* S, const float* q, const float* k, float* v, float beta, size_t d, float g,
               float scale, float* delta);
};

// In order of preference; the last one runs everywhere.
std::span<const GdnVariant> gdnVariants();

// The first variant that this processor supports.
const GdnVariant& bestGdnVariant();

}  // namespace qwen35
