// SPDX-License-Identifier: Apache-2.0
// Text to ids and back with the vocabulary of a file: as its publisher's tokenizer does it,
// or as the plug-in does.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zemtool {

enum class VocabularyChoice : uint8_t {
  Best,    // exact where the file has its publisher's tokenizer, else the plug-in's
  Exact,   // as the publisher's tokenizer
  Plugin,  // as the plug-in
};

class Vocabulary {
 public:
  Vocabulary() = default;
  virtual ~Vocabulary() = default;
  Vocabulary(const Vocabulary&) = delete;
  Vocabulary& operator=(const Vocabulary&) = delete;

  // For a message: "exact, of tokenizer.json", "the plug-in's".
  virtual std::string description() const = 0;

  // The ids that `text` is fed to the model as. Throws Failure.
  virtual std::vector<int32_t> encode(const std::string& text) const = 0;
  // The text of ids that are in the vocabulary. Throws Failure.
  virtual std::string decode(const std::vector<int32_t>& ids) const = 0;

  virtual bool hasToken(int32_t id) const = 0;
  virtual size_t size() const = 0;  // ids are below it
  // A token as bytes, and as a list shows it.
  virtual std::string bytesOf(int32_t id) const = 0;
  virtual std::string shown(int32_t id) const = 0;

  // What decoding `ids`, which encode() made of `text`, does not give back; empty when
  // nothing is amiss.
  virtual std::string lossOf(const std::vector<int32_t>& ids, const std::string& text) const = 0;
};

// Throws Failure when the file has no such vocabulary.
std::unique_ptr<const Vocabulary> openVocabulary(const std::string& path, VocabularyChoice choice);

}  // namespace zemtool
