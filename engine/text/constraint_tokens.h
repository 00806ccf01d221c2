// SPDX-License-Identifier: Apache-2.0
/// \file
/// The texts of a vocabulary in an order that lets common beginnings be read once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zem::text {

/// The texts of tokens, sorted. Immutable: any number of threads may read it.
class TokenTexts {
 public:
  /// `texts` has one entry an id: the bytes that the token adds to a reply. Empty where
  /// a constrained reply may never have the token: end markers and other special tokens.
  explicit TokenTexts(const std::vector<std::string>& texts);
  TokenTexts(TokenTexts&&) = default;             ///< entries stay valid
  TokenTexts& operator=(TokenTexts&&) = default;  ///< entries stay valid

  /// One token.
  struct Entry {
    uint32_t id;            ///< its place in the vocabulary
    uint32_t shared;        ///< bytes at the front that the entry before has too
    std::string_view text;  ///< never empty
  };
  const std::vector<Entry>& sorted() const { return sorted_; }  ///< by their bytes
  size_t size() const { return size_; }                         ///< ids of the vocabulary

 private:
  size_t size_;
  std::vector<char> bytes_;  // of all texts in this order: they are read one by one
  std::vector<Entry> sorted_;
};

}  // namespace zem::text
