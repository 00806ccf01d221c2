// SPDX-License-Identifier: Apache-2.0
#include "counted_kernels.h"

#include <cstdint>
#include <memory>
#include <random>
#include <stdexcept>
#include <utility>

#include "kernels/kernel_table.h"
#include "kernels/packing.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2.h"
#include "qwen35_kernels.h"
#include "sampling/sampling.h"
#include "support/tiny_model.h"
#include "support/trained_vocabulary.h"

namespace zemtest {
namespace {

using kiv::DType;
using qwen35::CpuLevel;
using Work = std::function<void()>;

// Keeps results from being taken for unused.
volatile float keptFloat = 0;
volatile uint64_t keptNumber = 0;

// Random numbers here are made of the generator's bits with exact operations:
// distributions of the standard library may call the C library's functions.
std::vector<float> randomFloats(size_t n, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<float> values(n);
  for (float& x : values) {
    x = static_cast<float>(static_cast<int32_t>(random())) * 0x1p-31F;  // [-1, 1)
  }
  return values;
}

std::string atLevel(const std::string& name, CpuLevel level) {
  return name + "/" + qwen35::cpuLevelName(level);
}

CountedKernel matvec(DType type, CpuLevel level) {
  const auto prepare = [=]() -> Work {
    constexpr size_t kRows = 64;
    constexpr size_t kCols = 2560;
    return [=, kernel = qwen35::kernelTable(level).matvec[type],
            W = encodeRows(type, randomFloats(kRows * kCols, 1), kCols), x = randomFloats(kCols, 2),
            y = std::vector<float>(kRows)]() mutable {
      kernel(W.data(), x.data(), kRows, kCols, y.data());
      keptFloat = y[0];
    };
  };
  return {atLevel(std::string("matvec/") + kiv::dtypeName(type), level), level, prepare};
}

CountedKernel matmul(DType type, CpuLevel level) {
  const auto prepare = [=]() -> Work {
    constexpr size_t kRows = 64;
    constexpr size_t kCols = 2560;
    constexpr size_t kTokens = 24;  // whole groups at every level
    const qwen35::KernelTable& kernels = qwen35::kernelTable(level);
    std::vector<float> packed(kTokens * kCols);
    qwen35::packTokens(randomFloats(packed.size(), 2).data(), kCols, kTokens, kCols,
                       kernels.groupTokens, 0, kCols, packed.data());
    return [=, kernel = kernels.matmul[type], packed = std::move(packed),
            W = encodeRows(type, randomFloats(kRows * kCols, 1), kCols),
            y = std::vector<float>(kTokens * kRows)]() mutable {
      kernel(W.data(), packed.data(), kTokens, kRows, kCols, y.data(), kRows);
      keptFloat = y[0];
    };
  };
  return {atLevel(std::string("matmul/") + kiv::dtypeName(type), level), level, prepare};
}

CountedKernel softmax(CpuLevel level) {
  const auto prepare = [=]() -> Work {
    constexpr size_t kSlots = 1000;
    constexpr size_t kHeads = qwen35::kSoftmaxHeads;
    return [=, scores = randomFloats(kSlots * kHeads, 1)] {
      std::vector<float> own = scores;
      float max[kHeads];
      float sum[kHeads];
      qwen35::kernelTable(level).softmax(own.data(), kSlots, kHeads, max, sum);
      keptFloat = sum[0];
    };
  };
  return {atLevel("softmax", level), level, prepare};
}

CountedKernel siluMul(CpuLevel level) {
  const auto prepare = [=]() -> Work {
    constexpr size_t kWidth = 9216;
    return [=, gate = randomFloats(kWidth, 1), x = randomFloats(kWidth, 2),
            out = std::vector<float>(kWidth)]() mutable {
      qwen35::kernelTable(level).siluMul(gate.data(), x.data(), out.data(), kWidth);
      keptFloat = out[0];
    };
  };
  return {atLevel("silu_mul", level), level, prepare};
}

CountedKernel gdnStep(CpuLevel level) {
  const auto prepare = []() -> Work {
    constexpr size_t kWidth = 128;
    return [S = randomFloats(kWidth * kWidth, 1), q = randomFloats(kWidth, 2),
            k = randomFloats(kWidth, 3), v = randomFloats(kWidth, 4)]() mutable {
      qwen35::gdnStep(S.data(), q.data(), k.data(), v.data(), 0.5F, kWidth, -0.1F, 0.09F);
      keptFloat = v[0];
    };
  };
  return {atLevel("gdn_step", level), level, prepare};
}

// A few likely tokens far above a bell curve, as a model's logits look.
std::vector<float> modelLikeLogits() {
  constexpr size_t kVocabulary = 248320;
  std::vector<float> logits(kVocabulary);
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    const std::vector<float> more = randomFloats(kVocabulary, seed);
    for (size_t i = 0; i < kVocabulary; ++i) logits[i] += 1.8F * more[i];
  }
  for (size_t i = 0; i < 30; ++i) logits[(i * 7919) % kVocabulary] = 18.0F - 0.4F * float(i);
  return logits;
}

CountedKernel sampling(const std::string& name, float temperature, CpuLevel level) {
  const auto prepare = [=]() -> Work {
    return [=, logits = modelLikeLogits()] {
      std::mt19937 rng(42);
      keptNumber = static_cast<uint64_t>(
          qwen35rt::sampleNext(logits.data(), logits.size(), temperature, 0, 0, rng));
    };
  };
  return {atLevel("sampling/" + name, level), level, prepare};
}

CountedKernel rmsNorm() {
  const auto prepare = []() -> Work {
    constexpr size_t kWidth = 2560;
    return [x = randomFloats(kWidth, 1), w = randomFloats(kWidth, 2),
            out = std::vector<float>(kWidth)]() mutable {
      qwen35::rmsNorm(x.data(), w.data(), out.data(), kWidth, 1e-6F);
      keptFloat = out[0];
    };
  };
  return {"rms_norm", CpuLevel::Baseline, prepare};
}

CountedKernel crc64() {
  const auto prepare = []() -> Work {
    std::vector<uint8_t> bytes(65536);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 31 + i / 256);
    return
        [bytes = std::move(bytes)] { keptNumber = kiv::zem2::crc64(bytes.data(), bytes.size()); };
  };
  return {"crc64", CpuLevel::Baseline, prepare};
}

// Invented words of one to four syllables, some with a capital or a full stop:
// the shorter a word, the more often it comes.
std::string inventedText(size_t words, uint32_t seed) {
  constexpr const char* kSyllables[] = {"ka", "lo", "mi",  "ren", "tu", "sha", "ve", "por",
                                        "in", "ed", "qua", "zi",  "st", "ol",  "na", "th"};
  std::mt19937 random(seed);
  std::string text;
  for (size_t i = 0; i < words; ++i) {
    const size_t start = text.size();
    for (size_t left = 1 + random() % 4; left > 0; --left) text += kSyllables[random() % 16];
    if (random() % 12 == 0) text[start] = static_cast<char>(text[start] - 'a' + 'A');
    text += random() % 9 == 0 ? ".\n" : " ";
  }
  return text;
}

CountedKernel encode() {
  const auto prepare = []() -> Work {
    auto tokenizer = std::make_shared<kiv::Tokenizer>();
    const kiv::Status loaded = tokenizer->load(
        zemtest::trainVocabulary(inventedText(6000, 1), 4000, zemtest::SpaceMarker::ByteLevel));
    if (!loaded.ok()) throw std::runtime_error(loaded.message());
    return [tokenizer, text = inventedText(2000, 2)] {
      std::vector<int32_t> ids;
      if (!tokenizer->encode(text, ids, true).ok()) throw std::runtime_error("encoding failed");
      keptNumber = ids.size();
    };
  };
  return {"encode", CpuLevel::Baseline, prepare};
}

}  // namespace

std::vector<CountedKernel> countedKernels() {
  std::vector<CountedKernel> kernels = {rmsNorm(), crc64(), encode()};
  for (const CpuLevel level : {CpuLevel::Baseline, CpuLevel::Avx2}) {
    for (const DType type : {DType::Q4_K, DType::Q6_K, DType::Q8_0, DType::BF16}) {
      kernels.push_back(matvec(type, level));
      kernels.push_back(matmul(type, level));
    }
    kernels.push_back(gdnStep(level));
    kernels.push_back(siluMul(level));
    kernels.push_back(softmax(level));
    kernels.push_back(sampling("greedy", 0.0F, level));
    kernels.push_back(sampling("temperature", 0.7F, level));
  }
  return kernels;
}

}  // namespace zemtest
