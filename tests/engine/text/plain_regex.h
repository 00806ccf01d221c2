// SPDX-License-Identifier: Apache-2.0
// The published split expressions as they are written: a small backtracking matcher
// for just what they use. Slow, and independent of how the library cuts texts.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/unicode/properties.h"
#include "engine/text/unicode/utf8.h"

namespace zem::text::test {

class PlainRegex {
 public:
  explicit PlainRegex(std::string_view source) : source_(source) {
    root_ = alternatives();
    if (at_ != source_.size()) throw std::runtime_error("a bracket too many");
  }

  // The matches in `text` one after the other, which have to cover it.
  std::vector<std::string> pieces(std::string_view text) const {
    std::vector<uint32_t> points;
    for (size_t at = 0; at < text.size();) points.push_back(nextPoint(text, at));
    std::vector<std::string> found;
    for (size_t at = 0; at < points.size();) {
      size_t end = at;
      const bool matched = root_(points, at, [&end](size_t stop) {
        end = stop;
        return true;
      });
      if (!matched || end == at) throw std::runtime_error("the expression does not cover the text");
      std::string& piece = found.emplace_back();
      for (; at < end; ++at) appendUtf8(points[at], piece);
    }
    return found;
  }

 private:
  using Points = std::vector<uint32_t>;
  using Then = std::function<bool(size_t)>;
  // Calls `then` with the end of each match from `at`, best first, until it says true.
  using Matcher = std::function<bool(const Points& text, size_t at, const Then& then)>;
  using Test = std::function<bool(uint32_t)>;

  bool more() const { return at_ < source_.size() && source_[at_] != ')'; }
  bool take(std::string_view text) {
    if (!source_.substr(at_).starts_with(text)) return false;
    at_ += text.size();
    return true;
  }

  Matcher alternatives() {
    std::vector<Matcher> choices = {sequence()};
    while (take("|")) choices.push_back(sequence());
    return [choices](const Points& text, size_t at, const Then& then) {
      for (const Matcher& choice : choices) {
        if (choice(text, at, then)) return true;
      }
      return false;
    };
  }

  Matcher sequence() {
    Matcher all = [](const Points&, size_t at, const Then& then) { return then(at); };
    while (more() && source_[at_] != '|') {
      const Matcher before = all;
      const Matcher next = quantified();
      all = [before, next](const Points& text, size_t at, const Then& then) {
        return before(text, at, [&](size_t end) { return next(text, end, then); });
      };
    }
    return all;
  }

  Matcher quantified() {
    const Matcher one = item();
    if (take("?")) return repeated(one, 0, 1);
    if (take("*")) return repeated(one, 0, SIZE_MAX);
    if (take("+")) return repeated(one, 1, SIZE_MAX);
    return one;
  }

  static Matcher repeated(const Matcher& one, size_t least, size_t most) {
    return [one, least, most](const Points& text, size_t at, const Then& then) {
      std::function<bool(size_t, size_t)> go = [&](size_t from, size_t count) {
        if (count < most && one(text, from, [&](size_t end) { return go(end, count + 1); })) {
          return true;
        }
        return count >= least && then(from);
      };
      return go(at, 0);
    };
  }

  Matcher item() {
    if (take("(?i:")) return group(true);
    if (take("(?!")) {
      const Matcher inner = alternatives();
      if (!take(")")) throw std::runtime_error("no closing bracket");
      return [inner](const Points& text, size_t at, const Then& then) {
        return !inner(text, at, [](size_t) { return true; }) && then(at);
      };
    }
    const Test test = set();
    return [test](const Points& text, size_t at, const Then& then) {
      return at < text.size() && test(text[at]) && then(at + 1);
    };
  }

  Matcher group(bool anyCase) {
    const bool before = anyCase_;
    anyCase_ = anyCase;
    const Matcher inner = alternatives();
    anyCase_ = before;
    if (!take(")")) throw std::runtime_error("no closing bracket");
    return inner;
  }

  // One character: itself, an escape, or a list in square brackets.
  Test set() {
    if (!take("[")) return single();
    const bool negated = take("^");
    std::vector<Test> members;
    while (!take("]")) members.push_back(single());
    return [members, negated](uint32_t point) {
      bool found = false;
      for (const Test& member : members) found = found || member(point);
      return found != negated;
    };
  }

  Test single() {
    using unicode::Kind;
    const auto kind = [](Kind wanted) {
      return [wanted](uint32_t point) { return unicode::kindOf(point) == wanted; };
    };
    if (take("\\p{L}")) return kind(Kind::Letter);
    if (take("\\p{M}")) return kind(Kind::Mark);
    if (take("\\p{N}")) return kind(Kind::Number);
    if (take("\\s")) return kind(Kind::Space);
    if (take("\\S")) return [](uint32_t p) { return unicode::kindOf(p) != Kind::Space; };
    if (take("\\r")) return [](uint32_t point) { return point == '\r'; };
    if (take("\\n")) return [](uint32_t point) { return point == '\n'; };
    const auto wanted = static_cast<uint8_t>(source_.at(at_++));
    if (!anyCase_) return [wanted](uint32_t point) { return point == wanted; };
    return [wanted](uint32_t point) {
      const bool upper = point >= 'A' && point <= 'Z';
      return (upper ? point - 'A' + 'a' : point == 0x17F ? 's' : point) == wanted;
    };
  }

  std::string_view source_;
  size_t at_ = 0;
  bool anyCase_ = false;
  Matcher root_;
};

}  // namespace zem::text::test
