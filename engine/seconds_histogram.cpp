// SPDX-License-Identifier: Apache-2.0
#include "engine/seconds_histogram.h"

#include <algorithm>

namespace zem {

void SecondsHistogram::add(double seconds) {
  const auto bound = std::lower_bound(kBounds.begin(), kBounds.end(), seconds);
  ++counts_[static_cast<size_t>(bound - kBounds.begin())];
  sum_ += seconds;
}

}  // namespace zem
