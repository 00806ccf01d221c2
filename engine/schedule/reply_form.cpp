// SPDX-License-Identifier: Apache-2.0
#include "engine/schedule/reply_form.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace zem {

ReplyForm::ReplyForm(std::shared_ptr<const text::Constraint> form, const TokenBytes& bytes,
                     std::vector<uint32_t> endTokens)
    : state_(text::Constraint::begin(std::move(form))),
      bytes_(bytes),
      endTokens_(std::move(endTokens)) {}

void ReplyForm::push(uint32_t id) {
  if (!ends(id)) state_.advance(bytes_.bytesOf(id));
}

bool ReplyForm::allows(uint32_t id) const {
  if (ends(id)) return begun_ && state_.complete();
  if (!begun_) return true;
  const std::string_view bytes = bytes_.bytesOf(id);
  return !bytes.empty() && state_.accepts(bytes);
}

void ReplyForm::mask(std::vector<bool>& allowed) const {
  if (begun_) {
    state_.mask(bytes_.texts(), allowed);
  } else {
    allowed.assign(bytes_.size(), true);
  }
  const bool mayEnd = begun_ && state_.complete();
  for (const uint32_t id : endTokens_) {
    if (id < allowed.size()) allowed[id] = mayEnd;
  }
}

bool ReplyForm::ends(uint32_t id) const {
  return std::find(endTokens_.begin(), endTokens_.end(), id) != endTokens_.end();
}

}  // namespace zem
