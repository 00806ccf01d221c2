// SPDX-License-Identifier: Apache-2.0
/// \file
/// The result of an operation that can fail for reasons outside the program:
/// a file's contents, the disk, a driver. Includes nothing of the project, so every
/// folder of the library may include it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace kiv {

/// The kind of a failure.
enum class StatusCode : uint8_t {
  Ok = 0,
  InvalidFormat = 1,
  Unsupported = 2,
  Corrupted = 3,
  IOError = 4,
};

/// Success, or a code with a message for people. Success carries no message.
class [[nodiscard]] Status {
 public:
  /// Success.
  Status() = default;
  /// A failure, `message` saying to people what, where and what to do.
  Status(StatusCode code, std::string message) : code_(code), message_(std::move(message)) {}

  bool ok() const { return code_ == StatusCode::Ok; }      ///< true for success
  StatusCode code() const { return code_; }                ///< Ok for success
  const std::string& message() const { return message_; }  ///< empty for success

 private:
  StatusCode code_ = StatusCode::Ok;
  std::string message_;
};

/// A failure of that kind, with its message for people.
///@{
inline Status invalidFormat(std::string message) {
  return {StatusCode::InvalidFormat, std::move(message)};
}
inline Status unsupported(std::string message) {
  return {StatusCode::Unsupported, std::move(message)};
}
inline Status ioError(std::string message) { return {StatusCode::IOError, std::move(message)}; }
///@}

}  // namespace kiv
