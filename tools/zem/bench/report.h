// SPDX-License-Identifier: Apache-2.0
// The report of `zem bench` and `zem plugin bench`: one row for each measurement, in three formats.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_test.h"
#include "host/model_file.h"

namespace zemtool {

// The facts that all rows share.
struct BenchSubject {
  std::string model;
  WeightTotals weights;
  std::string backend;
  std::string plan;
  bool engine = false;    // rows have an arithmetic, and sequences together
  bool roofline = false;  // rows have a read speed
};

struct BenchRow {
  BenchTest test;
  int threads = 0;
  std::vector<double> rates;        // tokens a second, one a repetition, of all sequences
  std::optional<double> readSpeed;  // bytes a second
  std::string math = {};            // "exact" or "fast", of the engine
};

// Rows of a table are printed as they are added; JSON is printed by finish().
class BenchReport {
 public:
  // "md", "json" or "csv".
  explicit BenchReport(std::string format) : format_(std::move(format)) {}

  void add(const BenchSubject& subject, const BenchRow& row);
  void finish();

 private:
  std::string format_;
  std::vector<std::pair<BenchSubject, BenchRow>> rows_;
};

// Of at least one number.
double mean(const std::vector<double>& numbers);

}  // namespace zemtool
