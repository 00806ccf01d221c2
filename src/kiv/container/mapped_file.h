// SPDX-License-Identifier: Apache-2.0
/// \file
/// A file read in place.
#pragma once

#include <cstdint>
#include <string>

#include "kiv/status.h"

namespace kiv {

/// The bytes of a file, mapped read-only. Any thread may read them. The file must
/// not shrink meanwhile: reading a page that is gone ends the process.
class MappedFile {
 public:
  MappedFile() = default;
  ~MappedFile() { close(); }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  /// Closes what was open. Fails with IOError, "cannot read PATH: REASON", also on
  /// folders, devices and pipes. An empty file opens.
  Status open(const std::string& path);
  /// Unmaps the file; may be repeated.
  void close();

  const std::string& path() const { return path_; }  ///< as given to open()
  const uint8_t* data() const { return data_; }      ///< null for an empty file
  uint64_t size() const { return size_; }            ///< bytes

  /// Gives the memory behind these bytes of the file back to the system; reading
  /// them again costs a second look at the disk. For files that are read once and
  /// are larger than the memory. Nothing outside the mapping is touched.
  void release(const uint8_t* from, uint64_t bytes) const;

 private:
  std::string path_;
  const uint8_t* data_ = nullptr;
  uint64_t size_ = 0;
};

}  // namespace kiv
