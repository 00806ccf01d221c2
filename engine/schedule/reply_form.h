// SPDX-License-Identifier: Apache-2.0
// The form that a reply must have, as a filter of its tokens.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "engine/sampling/token_filter.h"
#include "engine/schedule/token_bytes.h"
#include "engine/text/constraint.h"

namespace zem {

// One thread at a time. The bytes outlive it.
//
// Before begin() every token may come but those that end the reply: the model still thinks. From
// then on tokens have to follow the form, and end tokens may come where it is complete.
class ReplyForm : public TokenFilter {
 public:
  ReplyForm(std::shared_ptr<const text::Constraint> form, const TokenBytes& bytes,
            std::vector<uint32_t> endTokens);

  void begin() { begun_ = true; }
  bool begun() const { return begun_; }

  // A token behind begin(). Leaves the form as it is for one that it does not allow.
  void push(uint32_t id);
  // Nothing but blanks can follow.
  bool over() const { return begun_ && state_.over(); }

  bool allows(uint32_t id) const override;
  void mask(std::vector<bool>& allowed) const override;

 private:
  bool ends(uint32_t id) const;

  text::ConstraintState state_;
  const TokenBytes& bytes_;
  std::vector<uint32_t> endTokens_;
  bool begun_ = false;
};

}  // namespace zem
