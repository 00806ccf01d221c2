// SPDX-License-Identifier: Apache-2.0
// What this program is instrumented with, in one name for all compilers.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define ZEM_TEST_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEM_TEST_ADDRESS_SANITIZER 1
#endif
#endif
#ifndef ZEM_TEST_ADDRESS_SANITIZER
#define ZEM_TEST_ADDRESS_SANITIZER 0
#endif

namespace zemtest {

inline constexpr bool kAddressSanitizer = ZEM_TEST_ADDRESS_SANITIZER != 0;

}  // namespace zemtest
