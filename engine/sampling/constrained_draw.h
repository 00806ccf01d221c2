// SPDX-License-Identifier: Apache-2.0
// Drawing under a constraint without a mask over the vocabulary.
#pragma once

#include <cstdint>
#include <optional>

#include "engine/sampling/drawing.h"
#include "engine/sampling/token_filter.h"

namespace zem {

// What draw() would select had the values of all ids that `filter` refuses been negative
// infinity; nothing where that takes more than the tests of the likeliest ids.
//
// Ids are tested from the likeliest down. Those that are not tested yet can weigh no more than
// a bound that falls with every test. The search ends as soon as the draw selects the same
// id whatever they weigh below the bound: mostly after one or two tests.
std::optional<uint32_t> drawByTests(const Ranking& ranking, const Cuts& cuts, double u,
                                    const TokenFilter& filter);

}  // namespace zem
