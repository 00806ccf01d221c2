// SPDX-License-Identifier: Apache-2.0
// Files by name. Names are UTF-8 on every system, as arguments and as results. The narrow
// names of Windows depend on its settings and are never used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>

namespace compat {

// Converts between names and the standard library's paths.
std::filesystem::path pathOf(std::string_view name);
std::string nameOf(const std::filesystem::path& path);

// The type of the file: not_found when there is none, none when the system does not tell.
std::filesystem::file_type typeOf(const char* name);

// Opens a file for reading bytes and returns its descriptor, which child processes do not
// inherit. close() closes it. Does not wait for the other end of a pipe. -1 on failure. This
// function and all that follow leave the reason in errno.
int openToRead(const char* name);

// fopen().
std::FILE* openStream(const char* name, const char* mode);

// Creates a file that does not exist yet, for writing.
int createToWrite(const char* name);
// Writes all of `count` bytes at `offset`.
bool writeAt(int file, const void* bytes, size_t count, uint64_t offset);
// Returns when the file's bytes are on the disk.
bool syncToDisk(int file);
// Renames a file, replaces a file of the new name, and puts the change on the disk if the
// file system can.
bool moveOver(const char* from, const char* to);
bool removeFile(const char* name);

}  // namespace compat
