// SPDX-License-Identifier: Apache-2.0
#include "host/vocabulary.h"

#include <optional>
#include <utility>

#include "console/terminal.h"
#include "console/text.h"
#include "host/model_file.h"
#include "host/text_source.h"
#include "kiv/tokenizer.h"

namespace zemtool {
namespace {

void mustSucceed(const kiv::Status& status) {
  if (!status.ok()) throw Failure(status.message());
}

class ExactVocabulary final : public Vocabulary {
 public:
  explicit ExactVocabulary(ExactTokenizer exact) : exact_(std::move(exact)) {}

  std::string description() const override { return exact_.description(); }

  std::vector<int32_t> encode(const std::string& text) const override {
    std::vector<int32_t> ids;
    mustSucceed(exact_.tokenizer.encode(text, zem::text::AddedTokens::Recognised, ids));
    return ids;
  }
  std::string decode(const std::vector<int32_t>& ids) const override {
    return exact_.tokenizer.decode(ids);
  }

  bool hasToken(int32_t id) const override { return exact_.tokenizer.hasToken(id); }
  size_t size() const override { return exact_.tokenizer.size(); }
  std::string bytesOf(int32_t id) const override {
    return std::string(exact_.tokenizer.bytesOf(id));
  }
  std::string shown(int32_t id) const override { return escapeBytes(bytesOf(id)); }

  std::string lossOf(const std::vector<int32_t>& ids, const std::string& text) const override {
    if (!isWholeUtf8(text)) return "the text is not UTF-8; bytes without a character are U+FFFD";
    if (decode(ids) == text) return {};
    return "these ids are of the text's normal form NFC, which has other code points";
  }

 private:
  ExactTokenizer exact_;
};

class PluginVocabulary final : public Vocabulary {
 public:
  explicit PluginVocabulary(kiv::Tokenizer tokenizer) : tokenizer_(std::move(tokenizer)) {}

  std::string description() const override { return "the plug-in's"; }

  std::vector<int32_t> encode(const std::string& text) const override {
    std::vector<int32_t> ids;
    mustSucceed(tokenizer_.encode(text, ids, true));
    return ids;
  }
  std::string decode(const std::vector<int32_t>& ids) const override {
    std::string bytes;
    mustSucceed(tokenizer_.decode(ids, bytes));
    return bytes;
  }

  bool hasToken(int32_t id) const override { return id >= 0 && static_cast<size_t>(id) < size(); }
  size_t size() const override { return tokenizer_.data().tokens.size(); }
  std::string bytesOf(int32_t id) const override {
    std::string piece;
    return tokenizer_.tokenToString(id, piece).ok() ? piece : std::string();
  }
  std::string shown(int32_t id) const override { return escapeControls(bytesOf(id)); }

  // What the model itself adds in front is not part of the text.
  std::string lossOf(const std::vector<int32_t>& ids, const std::string& text) const override {
    std::vector<int32_t> own = ids;
    if (!own.empty() && tokenizer_.bos() >= 0 && own.front() == tokenizer_.bos()) {
      own.erase(own.begin());
    }
    std::string decoded;
    if (tokenizer_.decode(own, decoded).ok() && decoded == text) return {};
    return "decoding these ids does not give the text back";
  }

 private:
  kiv::Tokenizer tokenizer_;
};

}  // namespace

std::unique_ptr<const Vocabulary> openVocabulary(const std::string& path, VocabularyChoice choice) {
  if (choice != VocabularyChoice::Plugin) {
    std::optional<ExactTokenizer> exact = openExactTokenizer(path);
    if (exact) return std::make_unique<ExactVocabulary>(*std::move(exact));
  }
  if (choice == VocabularyChoice::Exact) {
    throw Failure(path + " carries no tokenizer of its source; --plugin uses the plug-in's");
  }
  if (textSourceOf(path) != TextSource::Container) {
    throw Failure("the plug-in reads containers alone, and " + path +
                  " is none; `zem convert` makes one of a model");
  }
  return std::make_unique<PluginVocabulary>(openTokenizer(path));
}

}  // namespace zemtool
