// SPDX-License-Identifier: Apache-2.0
// A file that appears under its name only when it is whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace compat {

// Writes to "<path>.partial-<pid>-<n>" in the same folder, a name that no other writer has.
// commit() puts the bytes on the disk and renames the file to `path`. Until then an older file
// of that name stays as it was. The partial file is removed unless commit() succeeds. Two
// writers to one path do not disturb each other: the last commit wins.
//
// A symbolic link at `path` is followed (on Windows: replaced). A folder, a device or another
// irregular file is refused. On Windows commit() fails when a process has mapped the older
// file, as it does with a model in use.
//
// Calls return false on failure. error() then names the file and the system's reason, and
// discard() is the only useful call. One thread.
class ReplacingFile {
 public:
  ReplacingFile() = default;
  ~ReplacingFile() { discard(); }
  ReplacingFile(const ReplacingFile&) = delete;
  ReplacingFile& operator=(const ReplacingFile&) = delete;

  bool open(const std::string& path);
  bool append(const void* bytes, size_t count);
  bool flush();  // hands the bytes to the system, so that errors show now
  // Replaces bytes that were appended before.
  bool overwrite(uint64_t offset, const void* bytes, size_t count);
  bool commit();
  void discard();  // removes the partial file, if there is one

  uint64_t size() const { return flushed_ + buffer_.size(); }  // bytes appended
  const std::string& error() const { return error_; }

 private:
  bool createPartial();
  bool write(const void* bytes, size_t count, uint64_t offset);
  bool failWithErrno(const char* action);

  std::string path_;
  std::string partial_;  // empty when there is none
  int fd_ = -1;
  std::vector<char> buffer_;
  uint64_t flushed_ = 0;
  std::string error_;
};

}  // namespace compat
