// SPDX-License-Identifier: Apache-2.0
#include "engine/text/published_vector.h"

#include <array>

namespace zem::text {
namespace {

constexpr std::string_view kText =
    "This is a test 😊\nI was born in 92000, and this is falsé.\n生活的真谛是\nHi  Hello\n"
    "Hi   Hello\n\n \n  \n Hello\n<s>\nhi<s>there\n"
    "The following string should be properly encoded: Hello.\n"
    "But ird and ปี   ird   ด\nHey how are you doing";

constexpr std::array<int32_t, 75> kIds = {
    1919,   369,   264,   1228,   25677, 232,   198,  40,    557,   8950,  303,  220,    24,
    17,     15,    15,    15,     11,    321,   411,  369,   30882, 933,   13,   198,    103815,
    132339, 95761, 198,   12675,  220,   21251, 198,  12675, 256,   21251, 271,  46813,  21251,
    198,    42589, 29,    198,    5834,  42589, 29,   17977, 198,   760,   2614, 886,    1220,
    381,    9971,  19873, 25,     21251, 13,    198,  3850,  220,   2517,  321,  170827, 256,
    220,    2517,  256,   149027, 198,   18103, 1204, 513,   488,   3604};

}  // namespace

PublishedVector publishedVector() { return {kText, kIds}; }

}  // namespace zem::text
