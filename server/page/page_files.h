// SPDX-License-Identifier: Apache-2.0
// The page of the server: its files, and the headers they are sent with.
#pragma once

#include <span>
#include <string_view>

namespace zem::server {

struct PageFile {
  std::string_view path;         ///< "/", "/highlight.js"; compared with the path of a request
  std::string_view contentType;  ///< the value of Content-Type
  std::string_view bytes;        ///< as it is
  std::string_view gzip;         ///< the same bytes for "Content-Encoding: gzip"
  std::string_view etag;         ///< the value of ETag, with its quotes
};

struct PageHeader {
  std::string_view name;
  std::string_view value;
};

/// All files. They and what they point to live as long as the program.
std::span<const PageFile> pageFiles();

/// The file at this path (without a query), or null. "/index.html" is "/" too.
const PageFile* findPageFile(std::string_view path);

/// Headers of every answer with a file of the page, with its Content-Security-Policy among them.
/// Beside them go Content-Type, Content-Encoding, ETag and "Vary: Accept-Encoding".
std::span<const PageHeader> pageHeaders();

}  // namespace zem::server
