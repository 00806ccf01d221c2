// The gated delta-rule step, compiled for several instruction sets.
#pragma once

#include <cstddef>

#include "qwen35_cpu.h"

namespace qwen35 {

// Every level's step gives the bits of reference::gdnStep, whose arguments it takes.
using GdnStep = void (*)(float* S, const float* q, const float* k, float* v, float beta, size_t d,
                         float g, float scale, float* delta);

GdnStep gdnStepOf(CpuLevel level);

}  // namespace qwen35
