// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/pattern_reader.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

namespace zem::text::pattern {
namespace {

constexpr uint32_t kMostRepeats = 1000;
constexpr int kMostGroups = 100;  // inside each other

// Each part is linked from a state, and returns the state behind it.
class Reader {
 public:
  Reader(std::string_view pattern, Links& links) : pattern_(pattern), links_(links) {}

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
    links_.link(at, Links::kEnd);
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
  Links& links_;
  size_t pos_ = 0;
  int groups_ = 0;
  size_t alternatives_ = 1;
  std::string error_;
};

}  // namespace

int readPattern(std::string_view pattern, Links& links, std::string& error) {
  Reader reader(pattern, links);
  const int start = reader.read();
  error = reader.error();
  return start;
}

}  // namespace zem::text::pattern
