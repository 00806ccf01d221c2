// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint.h"

#include <algorithm>
#include <array>
#include <deque>
#include <unordered_map>
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

namespace {

// The ways behind the bytes of a text, one step after the other. Steps between the first
// ways that were met are made once: inside a text there are few that differ.
class Steps {
 public:
  Steps(const Grammar& rules, const Ways& first) : rules_(rules), behind_(1) {
    behind_[0].known = remember(first);
  }

  // Goes on with `byte` behind the first `length` bytes. False where it is not allowed.
  bool advance(size_t length, uint8_t byte) {
    if (behind_.size() == length + 1) behind_.emplace_back();
    const int from = behind_[length].known;
    Place& to = behind_[length + 1];
    to.known = from == kUnknown ? kUnknown : known_[size_t(from)].next[byte];
    if (to.known != kUnknown) return to.known != kRefused;
    const Ways& ways = from == kUnknown ? behind_[length].ways : known_[size_t(from)].ways;
    grammar::step(rules_, ways, byte, to.ways);
    if (from != kUnknown) {
      to.known = to.ways.empty() ? kRefused : remember(to.ways);
      known_[size_t(from)].next[byte] = static_cast<int16_t>(to.known);
    }
    return !to.ways.empty();
  }

 private:
  static constexpr size_t kMostKnown = 1024;
  static constexpr int kUnknown = -1;
  static constexpr int kRefused = -2;

  struct Known {
    Ways ways;
    std::array<int16_t, 256> next;
  };
  struct Place {
    int known = kUnknown;  // the place in known_
    Ways ways;             // where it is unknown
  };

  // Of what mostly differs.
  static size_t hashOf(const Ways& ways) {
    size_t hash = ways.size();
    for (const grammar::Way& way : ways) {
      const grammar::Frame& top = way.top;
      for (const size_t part : {size_t{top.rule}, size_t{top.phase}, size_t{top.utf8},
                                size_t{top.a}, size_t{top.b}, size_t{top.c}}) {
        hash = hash * 1000003 + part;
      }
    }
    return hash;
  }

  int remember(const Ways& ways) {
    const size_t hash = hashOf(ways);
    const auto [begin, end] = places_.equal_range(hash);
    for (auto found = begin; found != end; ++found) {
      if (grammar::same(known_[size_t(found->second)].ways, ways)) return found->second;
    }
    if (known_.size() == kMostKnown) return kUnknown;
    known_.push_back({ways, {}});
    known_.back().next.fill(kUnknown);
    const int place = static_cast<int>(known_.size()) - 1;
    places_.emplace(hash, place);
    return place;
  }

  const Grammar& rules_;
  std::deque<Known> known_;
  std::unordered_multimap<size_t, int> places_;  // in known_, by hash
  std::vector<Place> behind_;                    // so many bytes
};

}  // namespace

// Tokens come sorted, so that the ways behind a common beginning are known already. What
// is refused once is refused for all texts that begin so.
void ConstraintState::mask(const TokenTexts& tokens, std::vector<bool>& allowed) const {
  allowed.assign(tokens.size(), false);
  Steps steps(*constraint_->grammar_, ways_);
  size_t known = 0;      // bytes that the last text has led to
  bool refused = false;  // its next byte was
  for (const TokenTexts::Entry& entry : tokens.sorted()) {
    if (entry.shared > known && refused) continue;
    if (entry.shared < known || (entry.shared == known && refused)) refused = false;
    known = std::min<size_t>(known, entry.shared);
    while (known < entry.text.size() && !refused) {
      refused = !steps.advance(known, static_cast<uint8_t>(entry.text[known]));
      if (!refused) ++known;
    }
    allowed[entry.id] = !refused;
  }
}

}  // namespace zem::text
