// SPDX-License-Identifier: Apache-2.0
/// \file
/// A distribution of times.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zem {

/// How many times were how long. One thread at a time.
class SecondsHistogram {
 public:
  /// Upper ends of all ranges but the last, in seconds; each belongs to its range.
  static constexpr std::array<double, 13> kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                                                     0.25,  0.5,    1.0,   2.5,  5.0,   10.0};

  void add(double seconds);  ///< one more

  /// Of each range, how many there were.
  const std::array<uint64_t, kBounds.size() + 1>& counts() const { return counts_; }
  double sum() const { return sum_; }  ///< of all seconds

 private:
  std::array<uint64_t, kBounds.size() + 1> counts_{};
  double sum_ = 0.0;
};

}  // namespace zem
