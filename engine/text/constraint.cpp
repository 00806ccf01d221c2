// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint.h"

#include <algorithm>
#include <utility>

#include "engine/text/constraint/grammar.h"
#include "engine/text/constraint/machine.h"
#include "engine/text/constraint/schema.h"

namespace zem::text {

using grammar::Grammar;
using grammar::Ways;
using kiv::Status;

Constraint::Constraint(std::unique_ptr<const Grammar> rules) : grammar_(std::move(rules)) {}
Constraint::~Constraint() = default;

Status Constraint::compile(const Json& schema, const ConstraintLimits& limits,
                           std::shared_ptr<const Constraint>& out) {
  out.reset();
  auto rules = std::make_unique<Grammar>();
  rules->mostDepth = limits.depth;
  grammar::SchemaReader reader(schema, "schema", limits, *rules);
  rules->root = reader.readDocument();
  if (Status status = reader.status(); !status.ok()) return status;
  if (Status status = grammar::finish(*rules, "schema"); !status.ok()) return status;
  out.reset(new Constraint(std::move(rules)));
  return {};
}

ConstraintState Constraint::begin(std::shared_ptr<const Constraint> constraint) {
  return ConstraintState(std::move(constraint));
}

ConstraintState::ConstraintState(std::shared_ptr<const Constraint> constraint)
    : constraint_(std::move(constraint)), ways_(grammar::beginning()) {}
ConstraintState::ConstraintState(const ConstraintState&) = default;
ConstraintState& ConstraintState::operator=(const ConstraintState&) = default;
ConstraintState::ConstraintState(ConstraintState&&) noexcept = default;
ConstraintState& ConstraintState::operator=(ConstraintState&&) noexcept = default;
ConstraintState::~ConstraintState() = default;

bool ConstraintState::advance(uint8_t byte) {
  const char c = static_cast<char>(byte);
  return advance(std::string_view(&c, 1));
}

namespace {

// The ways behind `bytes`; none where they are not allowed.
Ways behind(const Grammar& rules, const Ways& from, std::string_view bytes) {
  Ways ways = from;
  Ways next;
  for (const char c : bytes) {
    grammar::step(rules, ways, static_cast<uint8_t>(c), next);
    std::swap(ways, next);
    if (ways.empty()) break;
  }
  return ways;
}

}  // namespace

bool ConstraintState::advance(std::string_view bytes) {
  Ways next = behind(*constraint_->grammar_, ways_, bytes);
  if (next.empty()) return false;
  ways_ = std::move(next);
  return true;
}

bool ConstraintState::accepts(std::string_view bytes) const {
  return !behind(*constraint_->grammar_, ways_, bytes).empty();
}

bool ConstraintState::complete() const { return grammar::canEnd(*constraint_->grammar_, ways_); }
bool ConstraintState::over() const { return grammar::isOver(ways_); }

// Tokens come sorted, so that the ways behind a common beginning are known already. What
// is refused once is refused for all texts that begin so.
void ConstraintState::mask(const TokenTexts& tokens, std::vector<bool>& allowed) const {
  allowed.assign(tokens.size(), false);
  std::vector<Ways> behindBytes = {ways_};  // behind so many bytes of the text
  size_t known = 0;                         // of them are those of the last text
  bool refused = false;                     // its next byte was
  for (const TokenTexts::Entry& entry : tokens.sorted()) {
    if (entry.shared > known && refused) continue;
    if (entry.shared < known || (entry.shared == known && refused)) refused = false;
    known = std::min<size_t>(known, entry.shared);
    while (known < entry.text.size() && !refused) {
      if (behindBytes.size() == known + 1) behindBytes.emplace_back();
      grammar::step(*constraint_->grammar_, behindBytes[known],
                    static_cast<uint8_t>(entry.text[known]), behindBytes[known + 1]);
      refused = behindBytes[known + 1].empty();
      if (!refused) ++known;
    }
    allowed[entry.id] = !refused;
  }
}

}  // namespace zem::text
