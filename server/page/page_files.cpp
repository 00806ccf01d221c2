// SPDX-License-Identifier: Apache-2.0
#include "server/page/page_files.h"

#include <algorithm>

namespace zem::server {
namespace {

#include "page_files.inc"

// The hashes of the policy are those of the very files that are built in.
constexpr PageHeader kHeaders[] = {
    {"Content-Security-Policy", kPolicy},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-cache"},
};

}  // namespace

std::span<const PageFile> pageFiles() { return kFiles; }

const PageFile* findPageFile(std::string_view path) {
  if (path == "/index.html") path = "/";
  const auto found = std::find_if(std::begin(kFiles), std::end(kFiles),
                                  [path](const PageFile& file) { return file.path == path; });
  return found == std::end(kFiles) ? nullptr : found;
}

std::span<const PageHeader> pageHeaders() { return kHeaders; }

}  // namespace zem::server
