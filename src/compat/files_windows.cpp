// SPDX-License-Identifier: Apache-2.0
#include "compat/files.h"

#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>

#include "compat/handles_windows.h"
#include "compat/text_windows.h"

namespace compat {
namespace {

constexpr size_t kMaxWrite = size_t{64} << 20;

int errnoOf(DWORD code) {
  switch (code) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_NET_NAME:
    case ERROR_INVALID_DRIVE:
      return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_USER_MAPPED_FILE:
      return EACCES;
    case ERROR_WRITE_PROTECT:
      return EROFS;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
      return EEXIST;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
      return ENOSPC;
    case ERROR_TOO_MANY_OPEN_FILES:
      return EMFILE;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
      return ENOMEM;
    case ERROR_INVALID_HANDLE:
      return EBADF;
    case ERROR_INVALID_NAME:
    case ERROR_BAD_PATHNAME:
    case ERROR_INVALID_PARAMETER:
      return EINVAL;
    case ERROR_FILENAME_EXCED_RANGE:
      return ENAMETOOLONG;
    case ERROR_NOT_SAME_DEVICE:
      return EXDEV;
    default:
      return EIO;
  }
}

bool fail(DWORD code) {
  errno = errnoOf(code);
  return false;
}

bool convertName(const char* name, std::wstring& wide) {
  if (toWideName(name, wide)) return true;
  errno = EILSEQ;
  return false;
}

// Other programs may rename and remove the file while it is open, as on other systems.
int openDescriptor(const char* name, DWORD access, DWORD disposition, int flags) {
  std::wstring wide;
  if (!convertName(name, wide)) return -1;
  HANDLE handle =
      CreateFileW(wide.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                  nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    fail(GetLastError());
    return -1;
  }
  const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), flags | _O_BINARY);
  if (fd < 0) CloseHandle(handle);
  return fd;
}

}  // namespace

std::filesystem::path pathOf(std::string_view name) { return toWide(name); }

std::string nameOf(const std::filesystem::path& path) { return toUtf8(path.native()); }

// The standard library would call a device a file.
std::filesystem::file_type typeOf(const char* name) {
  using Type = std::filesystem::file_type;
  std::wstring wide;
  if (!toWideName(name, wide)) return Type::not_found;
  const DWORD attributes = GetFileAttributesW(wide.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    return Type::directory;
  }
  HANDLE handle = CreateFileW(wide.c_str(), FILE_READ_ATTRIBUTES,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    if (errnoOf(GetLastError()) == ENOENT) return Type::not_found;
    return attributes != INVALID_FILE_ATTRIBUTES ? Type::regular : Type::none;
  }
  const DWORD kind = GetFileType(handle);
  CloseHandle(handle);
  if (kind == FILE_TYPE_CHAR) return Type::character;
  if (kind == FILE_TYPE_PIPE) return Type::fifo;
  return kind == FILE_TYPE_DISK ? Type::regular : Type::unknown;
}

int openToRead(const char* name) {
  return openDescriptor(name, GENERIC_READ, OPEN_EXISTING, _O_RDONLY);
}

std::FILE* openStream(const char* name, const char* mode) {
  std::wstring wide;
  if (!convertName(name, wide)) return nullptr;
  return _wfopen(wide.c_str(), toWide(mode).c_str());
}

int createToWrite(const char* name) {
  return openDescriptor(name, GENERIC_WRITE, CREATE_NEW, _O_WRONLY);
}

bool writeAt(int file, const void* bytes, size_t count, uint64_t offset) {
  const char* from = static_cast<const char*>(bytes);
  while (count > 0) {
    OVERLAPPED where{};
    where.Offset = static_cast<DWORD>(offset);
    where.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD written = 0;
    const auto piece = static_cast<DWORD>(std::min(count, kMaxWrite));
    if (WriteFile(handleOf(file), from, piece, &written, &where) == 0) return fail(GetLastError());
    if (written == 0) return fail(ERROR_DISK_FULL);
    from += written;
    count -= written;
    offset += written;
  }
  return true;
}

bool syncToDisk(int file) { return FlushFileBuffers(handleOf(file)) != 0 || fail(GetLastError()); }

bool moveOver(const char* from, const char* to) {
  std::wstring source;
  std::wstring target;
  if (!convertName(from, source) || !convertName(to, target)) return false;
  return MoveFileExW(source.c_str(), target.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0 ||
         fail(GetLastError());
}

bool removeFile(const char* name) {
  std::wstring wide;
  if (!convertName(name, wide)) return false;
  return DeleteFileW(wide.c_str()) != 0 || fail(GetLastError());
}

}  // namespace compat
