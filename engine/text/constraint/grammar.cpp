// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/grammar.h"

#include <algorithm>
#include <utility>

namespace zem::text::grammar {
namespace {

constexpr size_t kMostOptions = 2048;

// Options of options, each once. Choices that only refer to each other have none.
class Flattener {
 public:
  explicit Flattener(Grammar& grammar) : grammar_(grammar), seen_(grammar.rules.size()) {}

  bool run() {
    std::vector<std::pair<RuleId, std::vector<RuleId>>> flat;
    for (RuleId id = 0; id < grammar_.rules.size(); ++id) {
      if (!std::holds_alternative<Choice>(grammar_.rules[id])) continue;
      flat.emplace_back(id, optionsOf(id));
      if (flat.back().second.size() > kMostOptions) return false;
    }
    for (auto& [id, options] : flat) std::get<Choice>(grammar_.rules[id]).options = options;
    return true;
  }

 private:
  std::vector<RuleId> optionsOf(RuleId id) {
    ++round_;
    std::vector<RuleId> options;
    std::vector<RuleId> queue = {id};
    while (!queue.empty() && options.size() <= kMostOptions) {
      const RuleId next = queue.back();
      queue.pop_back();
      if (std::exchange(seen_[next], round_) == round_) continue;
      const auto* choice = std::get_if<Choice>(&grammar_.rules[next]);
      if (choice == nullptr) {
        options.push_back(next);
      } else {
        queue.insert(queue.end(), choice->options.rbegin(), choice->options.rend());
      }
    }
    return options;
  }

  Grammar& grammar_;
  std::vector<size_t> seen_;
  size_t round_ = 0;
};

class Heights {
 public:
  explicit Heights(const Grammar& grammar)
      : grammar_(grammar), heights_(grammar.rules.size(), kUnlimited) {}

  std::vector<size_t> compute() {
    for (bool changed = true; changed;) {
      changed = false;
      for (RuleId id = 0; id < heights_.size(); ++id) {
        const size_t height =
            std::visit([this](const auto& rule) { return this->of(rule); }, grammar_.rules[id]);
        if (height > grammar_.mostDepth || height >= heights_[id]) continue;
        heights_[id] = height;
        changed = true;
      }
    }
    return heights_;
  }

 private:
  static size_t above(size_t height) { return height == kUnlimited ? height : height + 1; }

  size_t of(const Choice& choice) const {
    size_t least = kUnlimited;
    for (const RuleId option : choice.options) least = std::min(least, heights_[option]);
    return least;
  }
  static size_t of(const Words& words) { return words.texts.empty() ? kUnlimited : 0; }
  static size_t of(const Number& number) {
    return number.bounded && !number.bounds.any() ? kUnlimited : 0;
  }
  static size_t of(const Text& text) { return text.least > text.most ? kUnlimited : 0; }
  size_t of(const Array& array) const {
    if (array.least > array.most) return kUnlimited;
    size_t inside = 0;
    for (size_t i = 0; i < std::min(array.first.size(), array.least); ++i) {
      inside = std::max(inside, heights_[array.first[i]]);
    }
    if (array.least > array.first.size()) {
      inside = array.item == kNoRule ? kUnlimited : std::max(inside, heights_[array.item]);
    }
    return above(inside);
  }
  size_t of(const std::vector<Property>& properties) const {
    size_t inside = 0;
    for (const Property& property : properties) {
      if (property.required) inside = std::max(inside, heights_[property.value]);
    }
    return inside;
  }
  size_t of(const Object& object) const { return above(of(object.properties)); }
  size_t of(const Arguments& arguments) const { return of(arguments.properties); }
  size_t of(const Sequence& sequence) const {
    size_t most = 0;
    for (const RuleId part : sequence.parts) most = std::max(most, heights_[part]);
    return most;
  }
  size_t of(const Repeat& repeat) const { return heights_[repeat.part]; }

  const Grammar& grammar_;
  std::vector<size_t> heights_;
};

// Takes away what leads nowhere, so that whatever was begun can be ended.
class Pruner {
 public:
  explicit Pruner(Grammar& grammar) : grammar_(grammar) {}

  void run() {
    for (Rule& rule : grammar_.rules) {
      std::visit([this](auto& inner) { this->prune(inner); }, rule);
    }
  }

 private:
  bool isEmpty(RuleId id) const { return grammar_.heights[id] == kUnlimited; }

  void prune(Choice& choice) const {
    std::erase_if(choice.options, [this](RuleId option) { return isEmpty(option); });
  }
  void prune(Array& array) const {
    for (size_t i = 0; i < array.first.size(); ++i) {
      if (isEmpty(array.first[i])) array.most = std::min(array.most, i);
    }
    if (array.item == kNoRule || isEmpty(array.item)) {
      array.most = std::min(array.most, array.first.size());
    }
  }
  // A name that is declared stays out of the additional ones: its value is a choice of none.
  void prune(Object& object) const {
    if (object.additional != kNoRule && isEmpty(object.additional)) object.additional = kNoRule;
  }
  void prune(Arguments& arguments) const {
    std::erase_if(arguments.properties,
                  [this](const Property& property) { return isEmpty(property.value); });
  }
  template <typename Other>
  void prune(Other&) const {}

  Grammar& grammar_;
};

}  // namespace

kiv::Status finish(Grammar& grammar, const std::string& where) {
  if (!Flattener(grammar).run()) {
    return {kiv::StatusCode::Unsupported,
            where + ": more than " + std::to_string(kMostOptions) + " alternatives in one place"};
  }
  grammar.heights = Heights(grammar).compute();
  Pruner(grammar).run();
  if (grammar.heights[grammar.root] != kUnlimited) return {};
  return {kiv::StatusCode::InvalidFormat, where + ": nothing satisfies it within " +
                                              std::to_string(grammar.mostDepth) +
                                              " levels of arrays and objects"};
}

}  // namespace zem::text::grammar
