// SPDX-License-Identifier: Apache-2.0
#include "convert/write_weights.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <utility>

#include "console/terminal.h"
#include "console/text.h"
#include "convert/ordered_work.h"
#include "kiv/math/exact_math.h"
#include "kiv/quant/row_codec.h"

namespace zemtool {
namespace {

using kiv::TensorRole;

constexpr uint64_t kJobElements = uint64_t{1} << 18;  // about; a job has whole rows
constexpr uint64_t kJobCopied = uint64_t{4} << 20;    // bytes, likewise
constexpr size_t kLanes = 8;

// Above this relative error the weights are hardly usable.
constexpr double kPoorError = 0.3;
// A norm's weights lie around 1. Around 0 or 2, the addition of 1 is missing or doubled.
constexpr double kSmallNorm = 0.4;
constexpr double kLargeNorm = 1.7;

bool allFinite(const float* x, uint64_t n) {
  return kiv::rowIsFinite(kiv::DType::F32, x, n * sizeof(float));
}

// Sums term(0) to term(n - 1) in independent lanes, which compilers turn into vector code. They
// may not reorder a sum on their own. With two sums in one loop GCC gave up on vectors, at a
// third of the speed.
template <typename Term>
double laneSum(uint64_t n, const Term& term) {
  std::array<float, kLanes> lanes{};
  uint64_t i = 0;
  for (; i + kLanes <= n; i += kLanes) {
    for (size_t l = 0; l < kLanes; ++l) lanes[l] += term(i + l);
  }
  for (; i < n; ++i) lanes[0] += term(i);
  double sum = 0;
  for (const float lane : lanes) sum += static_cast<double>(lane);
  return sum;
}

void addErrors(const float* wanted, const float* stored, uint64_t n, RowStats& stats) {
  stats.squaredError += laneSum(n, [=](uint64_t i) {
    const float error = stored[i] - wanted[i];
    return error * error;
  });
  stats.squaredNorm += laneSum(n, [=](uint64_t i) { return wanted[i] * wanted[i]; });
}

void describe(const float* x, uint64_t n, RowStats& stats) {
  for (uint64_t i = 0; i < n; ++i) stats.sum += static_cast<double>(x[i]);
  stats.largest = *std::max_element(x, x + n);
}

[[noreturn]] void refuseValues(const PlannedTensor& tensor) {
  throw Failure("tensor '" + tensor.source->name + "' holds values that are not finite");
}

void changeElements(ElementChange change, float* x, uint64_t n) {
  if (change == ElementChange::PlusOne) {
    for (uint64_t i = 0; i < n; ++i) x[i] += 1.0F;
  } else if (change == ElementChange::NegativeExp) {
    for (uint64_t i = 0; i < n; ++i) x[i] = -kiv::math::expF32(x[i]);
  }
}

bool isNorm(TensorRole role) {
  switch (role) {
    case TensorRole::OutputNorm:
    case TensorRole::AttentionNorm:
    case TensorRole::FeedForwardNorm:
    case TensorRole::QueryNorm:
    case TensorRole::KeyNorm:
    case TensorRole::StateNorm:
      return true;
    default:
      return false;
  }
}

// One row of the source at a time, in the container's order and layout.
class RowReader {
 public:
  explicit RowReader(const PlannedTensor& tensor)
      : tensor_(tensor),
        rowBytes_(tensor.source->bytes / tensor.rows()),
        row_(tensor.cols()),
        unordered_(tensor.change.columns.run == 0 ? 0 : tensor.cols()) {}

  const float* read(uint64_t row) {
    const uint8_t* from = tensor_.source->data + tensor_.change.rows.source(row) * rowBytes_;
    if (unordered_.empty()) {
      kiv::widenGguf(tensor_.source->type, from, row_.data(), row_.size());
    } else {
      kiv::widenGguf(tensor_.source->type, from, unordered_.data(), unordered_.size());
      orderColumns();
    }
    changeElements(tensor_.change.elements, row_.data(), row_.size());
    if (!allFinite(row_.data(), row_.size())) refuseValues(tensor_);
    return row_.data();
  }

 private:
  void orderColumns() {
    const HeadOrder& order = tensor_.change.columns;
    for (uint64_t i = 0; i < row_.size(); i += order.run) {
      std::copy_n(unordered_.begin() + static_cast<ptrdiff_t>(order.source(i)), order.run,
                  row_.begin() + static_cast<ptrdiff_t>(i));
    }
  }

  const PlannedTensor& tensor_;
  uint64_t rowBytes_;
  std::vector<float> row_;
  std::vector<float> unordered_;
};

void copyRows(const PlannedTensor& tensor, uint64_t first, uint64_t count,
              std::vector<uint8_t>& out, RowStats& stats) {
  const uint64_t rowBytes = tensor.rowBytes();
  const uint8_t* from = tensor.source->data + first * rowBytes;
  out.assign(from, from + count * rowBytes);
  if (!kiv::rowIsFinite(tensor.type, out.data(), out.size())) refuseValues(tensor);
  if (tensor.shape.size() > 1) return;
  std::vector<float> values(tensor.cols());
  kiv::decodeRow(tensor.type, out.data(), values.size(), values.data());
  describe(values.data(), values.size(), stats);
}

struct Job {
  const PlannedTensor* tensor;
  uint64_t firstRow;
  uint64_t rows;
  RowStats stats;
};

std::vector<Job> cutIntoJobs(const ConversionPlan& plan, const std::vector<std::string>& order) {
  std::map<std::string, const PlannedTensor*> byName;
  for (const PlannedTensor& tensor : plan.tensors) byName.emplace(tensor.name, &tensor);
  std::vector<Job> jobs;
  for (const std::string& name : order) {
    const PlannedTensor& tensor = *byName.at(name);
    const uint64_t rowsAtOnce =
        tensor.copied ? kJobCopied / tensor.rowBytes() : kJobElements / tensor.cols();
    const uint64_t step = std::max<uint64_t>(1, rowsAtOnce);
    for (uint64_t row = 0; row < tensor.rows(); row += step) {
      jobs.push_back({&tensor, row, std::min(step, tensor.rows() - row), {}});
    }
  }
  return jobs;
}

// Gives back the source's pages of a job. Where rows change places, a tensor's last job gives
// back all of its pages.
void releaseRows(const Job& job) {
  const SourceTensor& source = *job.tensor->source;
  const uint64_t rowBytes = source.bytes / job.tensor->rows();
  const bool inOrder = job.tensor->change.rows.run == 0;
  const bool last = job.firstRow + job.rows == job.tensor->rows();
  if (inOrder) source.file->release(source.data + job.firstRow * rowBytes, job.rows * rowBytes);
  if (!inOrder && last) source.file->release(source.data, source.bytes);
}

class Reporter {
 public:
  void add(const Job& job) {
    if (job.firstRow == 0) stats_ = {};
    stats_.add(job.stats);
    if (job.firstRow + job.rows == job.tensor->rows()) finish(*job.tensor);
  }

  WeightReport take() {
    warnOfNorms(smallNorms_, "lie around 0: as if 1 had not been added");
    warnOfNorms(largeNorms_, "lie around 2 or above: as if 1 had been added twice");
    return std::move(report_);
  }

 private:
  void finish(const PlannedTensor& tensor) {
    TypeReport& type = report_.types[kiv::dtypeName(tensor.type)];
    ++type.tensors;
    type.copied += tensor.copied ? 1 : 0;
    type.elements += tensor.elements();
    type.bytes += tensor.bytes();
    report_.bytesRead += tensor.source->bytes;
    report_.bytesWritten += tensor.bytes();
    addError(tensor, type);
    if (tensor.shape.size() == 1) checkVector(tensor);
  }

  void addError(const PlannedTensor& tensor, TypeReport& type) {
    type.squaredError += stats_.squaredError;
    type.squaredNorm += stats_.squaredNorm;
    if (stats_.squaredNorm == 0) return;
    const double error = std::sqrt(stats_.squaredError / stats_.squaredNorm);
    if (error > type.worstError) {
      type.worstError = error;
      type.worstTensor = tensor.name;
    }
    if (error <= kPoorError) return;
    report_.warnings.push_back(tensor.name + " loses much as " + kiv::dtypeName(tensor.type) +
                               ": its relative error is " + formatNumber(error, 2));
  }

  void checkVector(const PlannedTensor& tensor) {
    const double mean = stats_.sum / static_cast<double>(tensor.elements());
    if (isNorm(tensor.role)) {
      if (mean < kSmallNorm) smallNorms_.emplace_back(tensor.name, mean);
      if (mean > kLargeNorm) largeNorms_.emplace_back(tensor.name, mean);
    }
    if (tensor.role == TensorRole::Decay && stats_.largest >= 0) {
      report_.warnings.push_back(
          tensor.name + " has values that are not negative: as if -exp had " + "not been applied");
    }
  }

  // One line for all of them: where one is wrong, many are.
  void warnOfNorms(const std::vector<std::pair<std::string, double>>& norms,
                   const std::string& what) {
    if (norms.empty()) return;
    const std::string more =
        norms.size() == 1 ? "" : " and of " + std::to_string(norms.size() - 1) + " other norms";
    report_.warnings.push_back("the weights of " + norms[0].first + " (mean " +
                               formatNumber(norms[0].second, 2) + ")" + more + " " + what);
  }

  RowStats stats_;  // of the tensor at hand
  std::vector<std::pair<std::string, double>> smallNorms_;
  std::vector<std::pair<std::string, double>> largeNorms_;
  WeightReport report_;
};

}  // namespace

void RowStats::add(const RowStats& other) {
  squaredError += other.squaredError;
  squaredNorm += other.squaredNorm;
  sum += other.sum;
  largest = other.largest;  // vectors have one stretch
}

double TypeReport::relativeError() const {
  return squaredNorm == 0 ? 0 : std::sqrt(squaredError / squaredNorm);
}

void encodeRows(const PlannedTensor& tensor, uint64_t first, uint64_t count, bool measure,
                std::vector<uint8_t>& out, RowStats& stats) {
  if (tensor.copied) return copyRows(tensor, first, count, out, stats);
  const uint64_t rowBytes = tensor.rowBytes();
  out.resize(count * rowBytes);
  RowReader reader(tensor);
  std::vector<float> stored(measure ? tensor.cols() : 0);
  for (uint64_t i = 0; i < count; ++i) {
    const float* row = reader.read(first + i);
    uint8_t* to = out.data() + i * rowBytes;
    kiv::encodeRow(tensor.type, row, tensor.cols(), to);
    if (measure) {
      kiv::decodeRow(tensor.type, to, tensor.cols(), stored.data());
      addErrors(row, stored.data(), tensor.cols(), stats);
    }
    if (tensor.shape.size() == 1) describe(row, tensor.cols(), stats);
  }
  if (!kiv::rowIsFinite(tensor.type, out.data(), out.size())) {
    throw Failure("tensor '" + tensor.source->name + "' has weights too large for the scales of " +
                  kiv::dtypeName(tensor.type) + "; use --type bf16 or f32");
  }
}

WeightReport writeWeights(const ConversionPlan& plan, kiv::ZEM2Writer& writer,
                          const WriteOptions& options) {
  std::vector<Job> jobs = cutIntoJobs(plan, writer.order());
  Reporter reporter;
  uint64_t done = 0;
  runOrdered(
      jobs.size(), options.threads,
      [&](size_t i, std::vector<uint8_t>& bytes) {
        Job& job = jobs[i];
        encodeRows(*job.tensor, job.firstRow, job.rows, options.measure, bytes, job.stats);
        releaseRows(job);
      },
      [&](size_t i, const std::vector<uint8_t>& bytes) {
        if (const kiv::Status s = writer.write(bytes.data(), bytes.size()); !s.ok()) {
          throw Failure(s.message());
        }
        reporter.add(jobs[i]);
        if (options.progress) options.progress(done += bytes.size());
      });
  return reporter.take();
}

}  // namespace zemtool
