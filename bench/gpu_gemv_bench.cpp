// SPDX-License-Identifier: Apache-2.0
// How fast the decoder's matrix-vector products run on a Vulkan device, beside a
// plain copy of the device's memory in the same run.
//
//   gpu_gemv_bench [--device N] [--seconds S] [--csv]
//
// Every product is first held against the exact one. Times are medians of wall
// time as the decoder sees it: upload of the vector, one submission, wait,
// download. The net time leaves out what an empty product takes.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "kiv/dequant.h"
#include "kiv/gpu_model_loader.h"
#include "kiv/quant_k.h"
#include "kiv/vulkan/vulkan_buffer.h"
#include "qwen35_gpu_gemv.h"

namespace {

using kiv::DType;
using kiv::vulkan::VulkanBuffer;
using kiv::vulkan::VulkanContext;

struct Options {
  uint64_t device = std::numeric_limits<uint64_t>::max();
  double seconds = 0.5;  // of measurement a product
  bool csv = false;
};

struct Shape {
  const char* use;
  uint32_t rows;
  uint32_t cols;
};

// What one token of the 4B model needs.
constexpr Shape kShapes[] = {
    {"attn_k, attn_v", 1024, 2560},   {"attn_gate", 4096, 2560},        {"ssm_out", 2560, 4096},
    {"attn_qkv, attn_q", 8192, 2560}, {"ffn_gate, ffn_up", 9216, 2560}, {"ffn_down", 2560, 9216},
    {"output head", 248320, 2560},
};
constexpr DType kTypes[] = {DType::Q4_K, DType::Q5_K, DType::Q6_K};

// Copies of a matrix that are read in turn, so that none stays in a cache.
constexpr uint64_t kWorkingSet = uint64_t{512} << 20;
constexpr uint64_t kCopyBytes = uint64_t{256} << 20;

void require(const kiv::Status& status, const char* what) {
  if (!status.ok()) throw std::runtime_error(std::string(what) + ": " + status.message());
}

// The median over calls of `work` for about `seconds`, in seconds.
template <typename Work>
double medianTime(double seconds, const Work& work) {
  using Clock = std::chrono::steady_clock;
  constexpr size_t kFewest = 5;
  std::vector<double> times;
  double total = 0;
  work();  // warms up
  while (total < seconds || times.size() < kFewest) {
    const auto start = Clock::now();
    work();
    times.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    total += times.back();
  }
  std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
  return times[times.size() / 2];
}

// Bytes read and written in a second by copies within the device's memory.
double copyRate(VulkanContext& ctx, double seconds) {
  VulkanBuffer from;
  VulkanBuffer to;
  require(from.create(ctx, kCopyBytes, /*hostVisible=*/false), "copy source");
  require(to.create(ctx, kCopyBytes, /*hostVisible=*/false), "copy destination");
  const double time =
      medianTime(seconds, [&] { require(to.copyFrom(ctx, from, kCopyBytes), "copy"); });
  return 2.0 * kCopyBytes / time;
}

// Random blocks whose half-precision factors are small, so that no sum overflows.
std::vector<uint8_t> randomBlocks(DType type, uint64_t bytes) {
  std::mt19937_64 random(1);
  std::vector<uint8_t> blocks(bytes);
  for (uint8_t& byte : blocks) byte = static_cast<uint8_t>(random());
  const uint64_t blockBytes = kiv::dtypeBytes(type, kiv::quant::kBlock256);
  const size_t first = type == DType::Q6_K ? offsetof(kiv::quant::Q6KBlock, d) : 0;
  const size_t factors = type == DType::Q6_K ? 1 : 2;
  for (uint64_t block = 0; block + blockBytes <= bytes; block += blockBytes) {
    for (size_t i = 0; i < factors; ++i) blocks[block + first + 2 * i + 1] = 0x20;
  }
  return blocks;
}

// One matrix in device memory, as often as it takes to be larger than any cache.
class Matrix {
 public:
  Matrix(VulkanContext& ctx, DType type, uint32_t rows, uint32_t cols) {
    view_.dtype = type;
    view_.ndim = 2;
    view_.shape = {cols, rows, 0, 0};
    view_.quant.bytesPerBlock = static_cast<uint32_t>(kiv::dtypeBytes(type, kiv::quant::kBlock256));
    view_.size = rows * view_.rowBytes();
    bytes_ = randomBlocks(type, view_.size);
    const uint64_t copies = std::clamp<uint64_t>(kWorkingSet / view_.size, 1, 64);
    for (uint64_t i = 0; i < copies; ++i) {
      VulkanBuffer& buffer = buffers_.emplace_back();
      require(buffer.create(ctx, kiv::deviceBufferBytes(view_.size), /*hostVisible=*/false),
              "weights");
      require(buffer.upload(bytes_.data(), bytes_.size()), "weights");
    }
  }

  uint64_t size() const { return view_.size; }
  uint32_t rows() const { return static_cast<uint32_t>(view_.shape[1]); }
  uint32_t cols() const { return static_cast<uint32_t>(view_.shape[0]); }

  // The next copy.
  const kiv::GPUTensorView& next() {
    turn_ = (turn_ + 1) % buffers_.size();
    view_.buffer = buffers_[turn_].handle();
    return view_;
  }

  std::vector<float> row(uint32_t r) const {
    std::vector<float> out(cols());
    const uint8_t* from = bytes_.data() + r * view_.rowBytes();
    const auto widen = view_.dtype == DType::Q4_K   ? kiv::quant::dequantQ4K
                       : view_.dtype == DType::Q5_K ? kiv::quant::dequantQ5K
                                                    : kiv::quant::dequantQ6K;
    widen(from, out.data(), cols());
    return out;
  }

 private:
  kiv::GPUTensorView view_;
  std::vector<uint8_t> bytes_;
  std::vector<VulkanBuffer> buffers_;
  size_t turn_ = 0;
};

void verify(const Matrix& matrix, const std::vector<float>& x, const std::vector<float>& y) {
  const uint32_t step = std::max(1U, matrix.rows() / 97);
  for (uint32_t r = 0; r < matrix.rows(); r += step) {
    const std::vector<float> w = matrix.row(r);
    double sum = 0;
    double magnitude = 0;
    for (size_t c = 0; c < w.size(); ++c) {
      const double term = static_cast<double>(w[c]) * x[c];
      sum += term;
      magnitude += std::fabs(term);
    }
    if (!(std::fabs(y[r] - sum) <= 1e-5 * magnitude)) {
      throw std::runtime_error("row " + std::to_string(r) + " is wrong");
    }
  }
}

// Seconds a product, or a negative number when the device declines it.
double productTime(qwen35gpu::GpuGemv& gemv, Matrix& matrix, double seconds) {
  std::vector<float> x(matrix.cols());
  for (size_t i = 0; i < x.size(); ++i) x[i] = static_cast<float>(i % 17) / 17.0F - 0.5F;
  std::vector<float> y(matrix.rows());
  if (!gemv.run(matrix.next(), matrix.rows(), matrix.cols(), x.data(), y.data())) return -1;
  verify(matrix, x, y);
  return medianTime(seconds, [&] {
    if (!gemv.run(matrix.next(), matrix.rows(), matrix.cols(), x.data(), y.data())) {
      throw std::runtime_error("the device stopped working");
    }
  });
}

void printRow(const Options& options, const Shape& shape, DType type, uint64_t bytes, double time,
              double empty, double copy) {
  const double net = std::max(time - empty, 1e-9);
  const double rate = static_cast<double>(bytes) / net;
  std::printf(options.csv ? "\"%s\",%u,%u,%s,%.2f,%.2f,%.2f,%.4f\n"
                          : "| %-16s | %6u x %4u | %s | %10.1f | %10.1f | %8.1f | %5.1f%% |\n",
              shape.use, shape.rows, shape.cols, kiv::dtypeName(type), time * 1e6, net * 1e6,
              rate / 1e9, rate / copy * (options.csv ? 1 : 100));
  std::fflush(stdout);
}

void printDeclined(const Options& options, const Shape& shape, DType type) {
  std::printf(options.csv ? "\"%s\",%u,%u,%s,,,,\n"
                          : "| %-16s | %6u x %4u | %s | declined by this device |||| \n",
              shape.use, shape.rows, shape.cols, kiv::dtypeName(type));
}

void measure(const Options& options) {
  kiv::GPUModelLoader gpu;
  require(gpu.init(options.device), "no Vulkan device");
  qwen35gpu::GpuGemv gemv;
  if (!gemv.init(gpu)) throw std::runtime_error("the kernels cannot be made");
  VulkanContext& ctx = gpu.context();

  const double copy = copyRate(ctx, options.seconds);
  double empty = 0;
  {
    Matrix smallest(ctx, DType::Q4_K, 2, 256);
    empty = productTime(gemv, smallest, options.seconds);
  }
  std::printf(options.csv ? "# %s, driver %s: copy %.1f GB/s, empty product %.1f us\n"
                          : "%s, driver %s\n\ncopy within device memory: %.1f GB/s read and "
                            "written; an empty product: %.1f us\n\n",
              ctx.info().deviceName.c_str(), ctx.info().driverVersion.c_str(), copy / 1e9,
              empty * 1e6);
  std::printf(options.csv ? "use,rows,columns,type,us,net_us,gb_per_s,share_of_copy\n"
                          : "| product of | rows x columns | type | us | us net | GB/s net | of "
                            "copy |\n|---|---|---|---:|---:|---:|---:|\n");
  for (const Shape& shape : kShapes) {
    for (const DType type : kTypes) {
      Matrix matrix(ctx, type, shape.rows, shape.cols);
      const double time = productTime(gemv, matrix, options.seconds);
      if (time < 0) {
        printDeclined(options, shape, type);
      } else {
        printRow(options, shape, type, matrix.size(), time, empty, copy);
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{"Times the decoder's matrix-vector products on a Vulkan device."};
  app.add_option("--device", options.device, "Index in `zem devices` (default: automatic)");
  app.add_option("--seconds", options.seconds, "Measuring time a product (default: 0.5)");
  app.add_flag("--csv", options.csv, "Comma-separated values");
  CLI11_PARSE(app, argc, argv);
  try {
    measure(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "gpu_gemv_bench: %s\n", error.what());
    return 1;
  }
  return 0;
}
