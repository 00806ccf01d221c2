// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/pattern.h"

#include <algorithm>
#include <limits>
#include <map>
#include <utility>

#include "engine/text/chat/python_text.h"
#include "engine/text/constraint/pattern_links.h"
#include "engine/text/constraint/pattern_reader.h"

namespace zem::text {

using kiv::Status;
using pattern::Links;

namespace {
constexpr size_t kMostWork = 50'000'000;  // links looked at: some tenths of a second
}  // namespace

// Makes it deterministic: a state is a set of states of the links, and the number of
// characters so far where that matters.
class PatternBuilder {
 public:
  PatternBuilder(const Links& links, size_t least, size_t most, size_t mostStates)
      : links_(links), least_(least), most_(most), mostStates_(mostStates), seen_(links.size()) {}

  bool build(int start, PatternAutomaton& out) {
    findEdges();
    add(closure({start}), 0);
    for (size_t i = 0; i < sets_.size(); ++i) {
      rows_.emplace_back();
      for (size_t byte = 0; byte < 256; ++byte) {
        const bool same = byte > 0 && !edges_[byte];
        rows_[i][byte] = same ? rows_[i][byte - 1] : next(i, static_cast<uint8_t>(byte));
      }
      if (sets_.size() > mostStates_ || work_ > kMostWork) return false;
    }
    keepAlive(out);
    return true;
  }

 private:
  using Set = std::vector<int>;
  using Key = std::pair<Set, size_t>;

  // Characters are counted where a bound is not met yet or can still be broken.
  size_t counted(size_t count) const {
    const bool bounded = most_ != std::numeric_limits<size_t>::max();
    return bounded ? count : std::min(count, least_);
  }

  // Bytes that some link tells from the byte before.
  void findEdges() {
    edges_[0x80] = edges_[0xC0] = true;  // where characters are counted
    for (size_t i = 0; i < links_.size(); ++i) {
      for (const auto& step : links_[static_cast<int>(i)].steps) {
        edges_[step.first] = true;
        if (step.last < 255) edges_[step.last + size_t{1}] = true;
      }
    }
  }

  Set closure(Set set) {
    ++round_;
    Set out;
    while (!set.empty()) {
      const int state = set.back();
      set.pop_back();
      ++work_;
      if (seen_[size_t(state)] == round_) continue;
      seen_[size_t(state)] = round_;
      if (state == Links::kEnd || !links_[state].steps.empty()) out.push_back(state);
      set.insert(set.end(), links_[state].free.begin(), links_[state].free.end());
    }
    std::sort(out.begin(), out.end());
    return out;
  }

  int add(Set set, size_t count) {
    const auto [found, isNew] = ids_.try_emplace({set, count}, static_cast<int>(sets_.size()));
    if (isNew) sets_.push_back({std::move(set), count});
    return found->second;
  }

  int next(size_t from, uint8_t byte) {
    const bool begins = (byte & 0xC0) != 0x80;
    const size_t count = counted(sets_[from].second + (begins ? 1 : 0));
    if (count > most_) return -1;
    Set targets;
    for (const int state : sets_[from].first) {
      work_ += links_[state].steps.size();
      for (const auto& step : links_[state].steps) {
        if (byte >= step.first && byte <= step.last) targets.push_back(step.target);
      }
    }
    if (targets.empty()) return -1;
    return add(closure(std::move(targets)), count);
  }

  bool accepts(size_t state) const {
    const Set& set = sets_[state].first;
    return sets_[state].second >= least_ && !set.empty() && set[0] == Links::kEnd;
  }

  // States from which no accepting one is reached become the dead one.
  void keepAlive(PatternAutomaton& out) const {
    std::vector<std::vector<size_t>> sources(rows_.size());
    std::vector<size_t> queue;
    std::vector<bool> alive(rows_.size());
    for (size_t i = 0; i < rows_.size(); ++i) {
      int last = -1;
      for (const int target : rows_[i]) {
        if (target >= 0 && target != last) sources[size_t(target)].push_back(i);
        last = target;
      }
      if (accepts(i)) queue.push_back(i);
    }
    while (!queue.empty()) {
      const size_t state = queue.back();
      queue.pop_back();
      if (alive[state]) continue;
      alive[state] = true;
      queue.insert(queue.end(), sources[state].begin(), sources[state].end());
    }
    copyAlive(alive, out);
  }

  void copyAlive(const std::vector<bool>& alive, PatternAutomaton& out) const {
    std::vector<uint16_t> numbers(alive.size(), PatternAutomaton::kDead);
    uint16_t count = 1;
    for (size_t i = 0; i < alive.size(); ++i) {
      if (alive[i]) numbers[i] = count++;
    }
    out.rows_.assign(count, {});
    out.accepting_.assign(count, false);
    for (size_t i = 0; i < alive.size(); ++i) {
      if (!alive[i]) continue;
      out.accepting_[numbers[i]] = accepts(i);
      for (size_t byte = 0; byte < 256; ++byte) {
        const int target = rows_[i][byte];
        if (target >= 0) out.rows_[numbers[i]][byte] = numbers[size_t(target)];
      }
    }
  }

  const Links& links_;
  size_t least_;
  size_t most_;
  size_t mostStates_;
  std::array<bool, 256> edges_{};
  std::vector<uint32_t> seen_;  // the round in which a link's state was reached last
  uint32_t round_ = 0;
  size_t work_ = 0;
  std::map<Key, int> ids_;
  std::vector<Key> sets_;
  std::vector<std::array<int, 256>> rows_;
};

Status PatternAutomaton::compile(std::string_view text, size_t least, size_t most,
                                 size_t mostStates, PatternAutomaton& out) {
  const auto failed = [&](const std::string& reason) {
    return Status(kiv::StatusCode::Unsupported, "the pattern " + quotedStart(text) + ": " + reason);
  };
  Links links;
  std::string error;
  const int start = pattern::readPattern(text, links, error);
  if (!error.empty()) return failed(error + " is not supported");
  PatternAutomaton automaton;
  if (!PatternBuilder(links, least, most, mostStates).build(start, automaton)) {
    return failed("it is too large, it needs more than " + std::to_string(mostStates) + " states");
  }
  if (automaton.size() == 1) return failed("no text matches it");
  out = std::move(automaton);
  return {};
}

}  // namespace zem::text
