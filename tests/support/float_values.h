// SPDX-License-Identifier: Apache-2.0
// Values that arithmetic must survive.
#pragma once

#include <limits>

namespace zemtest {

inline constexpr float kInf = std::numeric_limits<float>::infinity();
inline constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

}  // namespace zemtest
