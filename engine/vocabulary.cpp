// SPDX-License-Identifier: Apache-2.0
#include "engine/vocabulary.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "engine/text/container_tokenizer.h"
#include "kiv/tokenizer.h"

namespace zem {

using kiv::Status;

struct Vocabulary::Impl {
  std::optional<text::Tokenizer> exact;
  kiv::Tokenizer plain;            // where there is no exact one
  std::vector<std::string> texts;  // of its tokens, as they stand in a text
  std::vector<bool> special;       // of its tokens
  std::vector<uint32_t> endTokens;

  void decodePlainTokens();
  void findEndTokens(const kiv::ZEMLoader& loader);
  std::optional<uint32_t> idOf(std::string_view spelling) const;
};

// Each token decoded by itself: the plug-in's tokenizer has no finer interface.
void Vocabulary::Impl::decodePlainTokens() {
  const kiv::TokenizerData& data = plain.data();
  texts.resize(data.tokens.size());
  special.resize(data.tokens.size());
  for (size_t id = 0; id < texts.size(); ++id) {
    (void)plain.decode({static_cast<int32_t>(id)}, texts[id]);
    const int32_t type = id < data.tokenTypes.size() ? data.tokenTypes[id] : 0;
    special[id] = type == kiv::kTokenTypeControl || type == kiv::kTokenTypeUnknown;
  }
}

std::optional<uint32_t> Vocabulary::Impl::idOf(std::string_view spelling) const {
  const int32_t id =
      exact ? exact->addedToken(spelling).value_or(-1) : plain.tokenToId(std::string(spelling));
  return id < 0 ? std::nullopt : std::optional(static_cast<uint32_t>(id));
}

void Vocabulary::Impl::findEndTokens(const kiv::ZEMLoader& loader) {
  const uint32_t* ids = nullptr;
  uint64_t count = 0;
  if (loader.getMetaU32Array("sampling.stop_ids", ids, count)) {
    endTokens.assign(ids, ids + count);
  }
  if (endTokens.empty()) {
    for (const char* spelling : {"<|im_end|>", "<|endoftext|>"}) {
      if (const auto id = idOf(spelling)) endTokens.push_back(*id);
    }
  }
  const int32_t eos = loader.tokenizer().eosId;
  if (eos >= 0) endTokens.push_back(static_cast<uint32_t>(eos));
  std::ranges::sort(endTokens);
  endTokens.erase(std::unique(endTokens.begin(), endTokens.end()), endTokens.end());
}

Vocabulary::Vocabulary() = default;
Vocabulary::~Vocabulary() = default;
Vocabulary::Vocabulary(Vocabulary&& other) noexcept = default;
Vocabulary& Vocabulary::operator=(Vocabulary&& other) noexcept = default;

Status Vocabulary::load(const kiv::ZEMLoader& loader, Vocabulary& out) {
  auto impl = std::make_unique<Impl>();
  Status status = text::loadTokenizer(loader.reader(), impl->exact);
  if (!status.ok()) return status;
  if (!impl->exact) {
    status = impl->plain.load(loader.tokenizer());
    if (!status.ok()) return status;
    impl->decodePlainTokens();
  }
  impl->findEndTokens(loader);
  out.impl_ = std::move(impl);
  return {};
}

bool Vocabulary::isExact() const { return impl_->exact.has_value(); }

Status Vocabulary::encode(std::span<const text::TextPart> parts, std::vector<uint32_t>& ids) const {
  std::vector<int32_t> found;
  Status status;
  if (impl_->exact) {
    status = impl_->exact->encode(parts, found);
  } else {
    std::string whole;
    for (const text::TextPart& part : parts) whole += part.text;
    status = impl_->plain.encode(whole, found, false);
  }
  if (status.ok()) ids.assign(found.begin(), found.end());
  return status;
}

Status Vocabulary::encode(std::string_view text, text::AddedTokens added,
                          std::vector<uint32_t>& ids) const {
  const text::TextPart part{text, added};
  return encode({&part, 1}, ids);
}

std::string_view Vocabulary::bytesOf(uint32_t id) const {
  if (id >= size()) return {};
  if (!impl_->exact) return impl_->special[id] ? std::string_view() : impl_->texts[id];
  const auto token = static_cast<int32_t>(id);
  return impl_->exact->isSpecial(token) ? std::string_view() : impl_->exact->bytesOf(token);
}

std::string_view Vocabulary::spellingOf(uint32_t id) const {
  if (id >= size()) return {};
  return impl_->exact ? impl_->exact->bytesOf(static_cast<int32_t>(id)) : impl_->texts[id];
}

uint32_t Vocabulary::size() const {
  return static_cast<uint32_t>(impl_->exact ? impl_->exact->size() : impl_->texts.size());
}

std::optional<uint32_t> Vocabulary::idOf(std::string_view spelling) const {
  return impl_->idOf(spelling);
}

const std::vector<uint32_t>& Vocabulary::endTokens() const { return impl_->endTokens; }

}  // namespace zem
