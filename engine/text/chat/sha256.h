// SPDX-License-Identifier: Apache-2.0
/// \file
/// SHA-256 (FIPS 180-4), by which a chat template is recognised.
#pragma once

#include <string>
#include <string_view>

namespace zem::text {

/// The digest of `bytes` as 64 lower-case hexadecimal digits. Pure, any thread.
std::string sha256Hex(std::string_view bytes);

}  // namespace zem::text
