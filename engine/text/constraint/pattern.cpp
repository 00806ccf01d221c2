// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/pattern.h"

#include <algorithm>
#include <limits>
#include <map>
#include <utility>

#include "engine/text/chat/python_text.h"

namespace zem::text {
namespace {

using kiv::Status;

constexpr uint32_t kLastPoint = 0x10FFFF;
constexpr uint32_t kMostRepeats = 1000;
constexpr size_t kMostLinks = 20000;
constexpr size_t kMostWork = 50'000'000;  // links looked at: some tenths of a second
constexpr int kMostGroups = 100;          // inside each other

struct Range {
  uint32_t first;
  uint32_t last;
};
using Ranges = std::vector<Range>;

// Sorted, without overlaps.
Ranges normalised(Ranges ranges) {
  std::sort(ranges.begin(), ranges.end(), [](Range a, Range b) { return a.first < b.first; });
  Ranges out;
  for (const Range& range : ranges) {
    if (!out.empty() && range.first <= out.back().last + 1) {
      out.back().last = std::max(out.back().last, range.last);
    } else {
      out.push_back(range);
    }
  }
  return out;
}

Ranges complement(const Ranges& ranges) {
  Ranges out;
  uint32_t next = 0;
  for (const Range& range : normalised(ranges)) {
    if (range.first > next) out.push_back({next, range.first - 1});
    next = range.last + 1;
  }
  if (next <= kLastPoint) out.push_back({next, kLastPoint});
  return out;
}

Ranges intersection(const Ranges& a, const Ranges& b) {
  Ranges out;
  for (const Range& x : a) {
    for (const Range& y : b) {
      const Range common = {std::max(x.first, y.first), std::min(x.last, y.last)};
      if (common.first <= common.last) out.push_back(common);
    }
  }
  return out;
}

// What a string can hold without \u, surrogates left out.
const Ranges& alphabet() {
  static const Ranges ranges = {{0x8, 0xA}, {0xC, 0xD}, {0x20, 0xD7FF}, {0xE000, kLastPoint}};
  return ranges;
}

}  // namespace

// Nondeterministic, over bytes. State 0 is where texts end.
class PatternLinks {
 public:
  static constexpr int kEnd = 0;
  struct State {
    std::vector<int> free;  // reached without a byte
    struct Step {
      uint8_t first;
      uint8_t last;
      int target;
    };
    std::vector<Step> steps;
  };

  PatternLinks() { add(); }
  int add() {
    states_.emplace_back();
    return static_cast<int>(states_.size()) - 1;
  }
  void link(int from, int to) {
    states_[size_t(from)].free.push_back(to);
    ++count_;
  }
  void step(int from, uint8_t first, uint8_t last, int to) {
    states_[size_t(from)].steps.push_back({first, last, to});
    ++count_;
  }
  const State& operator[](int state) const { return states_[size_t(state)]; }
  size_t size() const { return states_.size(); }
  bool tooMany() const { return count_ + states_.size() > kMostLinks; }

 private:
  std::vector<State> states_;
  size_t count_ = 0;
};

namespace {

std::string utf8(uint32_t point) {
  std::string out;
  const auto put = [&](uint32_t byte) { out += static_cast<char>(byte); };
  if (point < 0x80) {
    put(point);
  } else if (point < 0x800) {
    put(0xC0 | point >> 6);
    put(0x80 | (point & 0x3F));
  } else if (point < 0x10000) {
    put(0xE0 | point >> 12);
    put(0x80 | (point >> 6 & 0x3F));
    put(0x80 | (point & 0x3F));
  } else {
    put(0xF0 | point >> 18);
    put(0x80 | (point >> 12 & 0x3F));
    put(0x80 | (point >> 6 & 0x3F));
    put(0x80 | (point & 0x3F));
  }
  return out;
}

// PatternLinks for the characters of a range: cut where the number of bytes changes, and so
// that in each piece all bytes behind the first that differs run through all values.
void addRange(PatternLinks& links, int from, int to, Range range) {
  for (const uint32_t edge : {0x7FU, 0x7FFU, 0xFFFFU}) {
    if (range.first <= edge && range.last > edge) {
      addRange(links, from, to, {range.first, edge});
      addRange(links, from, to, {edge + 1, range.last});
      return;
    }
  }
  for (uint32_t bits = 6; bits < 24; bits += 6) {
    const uint32_t low = (1U << bits) - 1;
    if ((range.first & ~low) == (range.last & ~low)) break;
    uint32_t cut = range.last + 1;
    if ((range.first & low) != 0) {
      cut = (range.first | low) + 1;
    } else if ((range.last & low) != low) {
      cut = range.last & ~low;
    }
    if (cut > range.last) continue;
    addRange(links, from, to, {range.first, cut - 1});
    addRange(links, from, to, {cut, range.last});
    return;
  }
  const std::string first = utf8(range.first);
  const std::string last = utf8(range.last);
  for (size_t i = 0; i < first.size(); ++i) {
    const int next = i + 1 == first.size() ? to : links.add();
    links.step(from, static_cast<uint8_t>(first[i]), static_cast<uint8_t>(last[i]), next);
    from = next;
  }
}

// Reads the pattern. Each part is linked from a state, and returns the state behind it.
class Reader {
 public:
  Reader(std::string_view pattern, PatternLinks& links) : pattern_(pattern), links_(links) {}

  // Returns the first state.
  int read() {
    const int start = links_.add();
    const bool begins = take("^");
    const bool ends = pattern_.ends_with('$') && !isEscaped(pattern_.size() - 1);
    if (ends) pattern_.remove_suffix(1);
    int at = alternatives(begins ? start : anything(start));
    if (!rest().empty()) fail("a bracket that is not opened");
    if (alternatives_ > 1 && (begins || ends)) fail("an anchor of one alternative alone");
    if (!ends) at = anything(at);
    links_.link(at, PatternLinks::kEnd);
    return start;
  }

  const std::string& error() const { return error_; }

 private:
  bool isEscaped(size_t at) const {
    size_t slashes = 0;
    while (slashes < at && pattern_[at - 1 - slashes] == '\\') ++slashes;
    return slashes % 2 == 1;
  }

  void fail(std::string reason) {
    if (error_.empty()) error_ = std::move(reason);
    pos_ = pattern_.size();
  }

  // A character for a message, in which half of one cannot stand.
  static std::string shown(char c) { return c < 0 ? std::string("...") : std::string(1, c); }
  std::string shown() const { return rest().empty() ? std::string() : shown(rest()[0]); }

  std::string_view rest() const { return pattern_.substr(std::min(pos_, pattern_.size())); }
  bool take(std::string_view text) {
    if (!rest().starts_with(text)) return false;
    pos_ += text.size();
    return true;
  }

  int anything(int from) {
    const int loop = links_.add();
    links_.link(from, loop);
    for (const Range& range : alphabet()) addRange(links_, loop, loop, range);
    return loop;
  }

  int alternatives(int from) {
    const int behind = links_.add();
    size_t count = 0;
    do {
      ++count;
      const int begin = links_.add();
      links_.link(from, begin);
      links_.link(sequence(begin), behind);
    } while (take("|"));
    alternatives_ = count;  // at last those outside all groups
    return behind;
  }

  int sequence(int from) {
    while (!rest().empty() && rest()[0] != '|' && rest()[0] != ')') from = repeated(from);
    return from;
  }

  // An atom with what says how often. It is read anew for each time it is linked.
  int repeated(int from) {
    const size_t begin = pos_;
    const int first = links_.add();
    links_.link(from, first);
    int behind = atom(first);
    const size_t end = pos_;
    uint32_t least = 1;
    uint32_t most = 1;
    if (!readCount(least, most)) return behind;
    const size_t next = pos_;
    const auto again = [&](int at) {
      pos_ = begin;
      const int to = atom(at);
      if (pos_ != end) fail("an odd part");
      return to;
    };
    // The first copy exists: with nothing wanted it can be gone round.
    const int out = links_.add();
    if (least == 0) links_.link(from, out);
    if (most == 0) {
      pos_ = error_.empty() ? next : pos_;
      return out;
    }
    for (uint32_t i = 1; i < least && error_.empty(); ++i) behind = again(behind);
    if (most == kForever) {
      const int loop = links_.add();
      links_.link(behind, loop);
      links_.link(again(loop), loop);
      links_.link(loop, out);
    } else {
      links_.link(behind, out);
      for (uint32_t i = std::max(least, 1U); i < most && error_.empty(); ++i) {
        behind = again(behind);
        links_.link(behind, out);
      }
    }
    if (error_.empty()) pos_ = next;
    return out;
  }

  bool readCount(uint32_t& least, uint32_t& most) {
    if (take("*")) {
      least = 0;
      most = kForever;
    } else if (take("+")) {
      most = kForever;
    } else if (take("?")) {
      least = 0;
    } else if (rest().starts_with('{')) {
      if (!readBraces(least, most)) return false;
    } else {
      return false;
    }
    take("?");  // lazy: the same texts match
    if (rest().starts_with('*') || rest().starts_with('+') || rest().starts_with('?')) {
      fail("a repetition of a repetition");
    }
    return true;
  }

  bool readBraces(uint32_t& least, uint32_t& most) {
    take("{");
    if (!readNumber(least)) {
      fail("a brace without a number");
      return false;
    }
    most = least;
    if (take(",")) {
      if (!readNumber(most)) most = kForever;
    }
    if (!take("}") || least > most) {
      fail("a repetition that is not {m}, {m,} or {m,n}");
      return false;
    }
    if (least > kMostRepeats || (most != kForever && most > kMostRepeats)) {
      fail("more than " + std::to_string(kMostRepeats) + " repetitions");
      return false;
    }
    return true;
  }

  bool readNumber(uint32_t& number) {
    const size_t digits = std::min(rest().find_first_not_of("0123456789"), rest().size());
    if (digits == 0) return false;
    number = digits > 6 ? 1000000U
                        : static_cast<uint32_t>(std::stoul(std::string(rest().substr(0, digits))));
    pos_ += digits;
    return true;
  }

  int atom(int from) {
    if (links_.tooMany()) fail("it is too large");
    if (rest().empty()) return from;
    const char c = rest()[0];
    if (c == '(') return group(from);
    if (c == '[') return characters(from, characterClass());
    if (c == '.') {
      ++pos_;
      return characters(from, complement({{'\n', '\n'}, {'\r', '\r'}, {0x2028, 0x2029}}));
    }
    if (c == '^' || c == '$') {
      fail("an anchor inside");
      return from;
    }
    if (c == '*' || c == '+' || c == '?' || c == '{' || c == '}' || c == ']') {
      fail(std::string("a lone ") + c);
      return from;
    }
    if (c == '\\') return characters(from, escape(false));
    const uint32_t point = character();
    return characters(from, {{point, point}});
  }

  int group(int from) {
    take("(");
    if (take("?") && !take(":")) fail("a group of the kind (?" + shown());
    if (++groups_ > kMostGroups) fail("groups deeper than " + std::to_string(kMostGroups));
    const int behind = error_.empty() ? alternatives(from) : from;
    --groups_;
    if (!take(")")) fail("a bracket that is not closed");
    return behind;
  }

  int characters(int from, const Ranges& ranges) {
    const int behind = links_.add();
    for (const Range& range : intersection(normalised(ranges), alphabet())) {
      addRange(links_, from, behind, range);
    }
    return behind;
  }

  // One character of the pattern itself, which is UTF-8.
  uint32_t character() {
    const auto lead = static_cast<uint8_t>(rest()[0]);
    const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (rest().size() < length) {
      fail("it is not UTF-8");
      return 0;
    }
    uint32_t point = length == 1 ? lead : lead & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i)
      point = point << 6 | (static_cast<uint8_t>(rest()[i]) & 0x3F);
    pos_ += length;
    return point;
  }

  Ranges characterClass() {
    take("[");
    const bool negated = rest().starts_with('^');
    if (negated) ++pos_;
    Ranges ranges;
    while (!rest().empty() && rest()[0] != ']') {
      const Ranges first = classItem();
      const bool single = first.size() == 1 && first[0].first == first[0].last;
      if (rest().size() > 1 && rest()[0] == '-' && rest()[1] != ']') {
        ++pos_;
        const Ranges last = classItem();
        const bool alsoSingle = last.size() == 1 && last[0].first == last[0].last;
        if (!single || !alsoSingle || first[0].first > last[0].first) {
          fail("an odd range");
          return {};
        }
        ranges.push_back({first[0].first, last[0].first});
      } else {
        ranges.insert(ranges.end(), first.begin(), first.end());
      }
    }
    if (!take("]")) fail("a class that is not closed");
    return negated ? complement(ranges) : ranges;
  }

  Ranges classItem() {
    if (rest().empty()) return {};
    if (rest()[0] == '\\') return escape(true);
    const uint32_t point = character();
    return {{point, point}};
  }

  Ranges escape(bool inClass) {
    take("\\");
    if (rest().empty()) {
      fail("a backslash at the end");
      return {};
    }
    const char c = rest()[0];
    ++pos_;
    Ranges digits = {{'0', '9'}};
    Ranges word = {{'0', '9'}, {'A', 'Z'}, {'_', '_'}, {'a', 'z'}};
    Ranges space = {{0x9, 0xD},       {0x20, 0x20},     {0xA0, 0xA0},     {0x1680, 0x1680},
                    {0x2000, 0x200A}, {0x2028, 0x2029}, {0x202F, 0x202F}, {0x205F, 0x205F},
                    {0x3000, 0x3000}, {0xFEFF, 0xFEFF}};
    switch (c) {
      case 'd':
        return digits;
      case 'D':
        return complement(digits);
      case 'w':
        return word;
      case 'W':
        return complement(word);
      case 's':
        return space;
      case 'S':
        return complement(space);
      case 'n':
        return {{'\n', '\n'}};
      case 'r':
        return {{'\r', '\r'}};
      case 't':
        return {{'\t', '\t'}};
      case 'f':
        return {{'\f', '\f'}};
      case 'v':
        return {{'\v', '\v'}};
      case 'x':
        return hex(2);
      case 'u':
        return hex(4);
      default:
        break;
    }
    constexpr std::string_view kSigns = "^$\\.*+?()[]{}|/-\"'#%&,:;<=>@_`~! ";
    if (c == 'b' && inClass) return {{'\b', '\b'}};
    if (kSigns.find(c) == std::string_view::npos) fail("\\" + shown(c));
    return {{static_cast<uint8_t>(c), static_cast<uint8_t>(c)}};
  }

  Ranges hex(size_t digits) {
    const std::string text(rest().substr(0, digits));
    const bool whole = text.size() == digits &&
                       text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (!whole) {
      fail("a character's number that is not of " + std::to_string(digits) + " digits");
      return {};
    }
    pos_ += digits;
    const auto point = static_cast<uint32_t>(std::stoul(text, nullptr, 16));
    return {{point, point}};
  }

  static constexpr uint32_t kForever = std::numeric_limits<uint32_t>::max();

  std::string_view pattern_;
  PatternLinks& links_;
  size_t pos_ = 0;
  int groups_ = 0;
  size_t alternatives_ = 1;
  std::string error_;
};

}  // namespace

// Makes it deterministic: a state is a set of states of the links, and the number of
// characters so far where that matters.
class PatternBuilder {
 public:
  PatternBuilder(const PatternLinks& links, size_t least, size_t most, size_t mostStates)
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
      if (state == PatternLinks::kEnd || !links_[state].steps.empty()) out.push_back(state);
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
    return sets_[state].second >= least_ && !set.empty() && set[0] == PatternLinks::kEnd;
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

  const PatternLinks& links_;
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

Status PatternAutomaton::compile(std::string_view pattern, size_t least, size_t most,
                                 size_t mostStates, PatternAutomaton& out) {
  const auto failed = [&](const std::string& reason) {
    return Status(kiv::StatusCode::Unsupported,
                  "the pattern " + quotedStart(pattern) + ": " + reason);
  };
  PatternLinks links;
  Reader reader(pattern, links);
  const int start = reader.read();
  if (!reader.error().empty()) return failed(reader.error() + " is not supported");
  PatternAutomaton automaton;
  if (!PatternBuilder(links, least, most, mostStates).build(start, automaton)) {
    return failed("it is too large, it needs more than " + std::to_string(mostStates) + " states");
  }
  if (automaton.size() == 1) return failed("no text matches it");
  out = std::move(automaton);
  return {};
}

}  // namespace zem::text
