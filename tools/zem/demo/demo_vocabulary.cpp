// SPDX-License-Identifier: Apache-2.0
#include "demo/demo_vocabulary.h"

#include <cstdint>
#include <sstream>
#include <string>
#include <unordered_set>
#include <utility>

namespace zemtool {
namespace {

constexpr char kSpace[] = "\xE2\x96\x81";  // U+2581

constexpr float kWord = 4.0F;
constexpr float kPunctuation = 3.6F;
constexpr float kEnding = 2.5F;
constexpr float kLetter = 1.5F;
constexpr float kPiece = 1.0F;  // the beginning of a word
constexpr float kCharacter = 0.7F;
constexpr float kFiller = 0.5F;
constexpr float kControl = 0.1F;

constexpr int32_t kTypeNormal = 1;

struct CodePoints {
  uint32_t first;
  uint32_t last;
};

// Controls beside tab and line ends are left out on purpose: no model should
// be able to send them to a terminal.
constexpr CodePoints kCharacters[] = {
    {0xA0, 0xD7FF},      // the Basic Multilingual Plane up to the surrogates
    {0xF900, 0xFDCF},    // behind private use, to the noncharacters
    {0xFDF0, 0xFFFD},    //
    {0x1F000, 0x1FAFF},  // pictographs, emoji and their modifiers
    {0xE0020, 0xE007F},  // tags of subdivision flags
};

constexpr char kCommonWords[] =
    "the of and to in a is that it was for on are as with his they at be this from have or by one "
    "had not but what all were when we there can an your which their said if do will each about "
    "how up out them then she many some so these would other into has more her two like him see "
    "time could no make than first been its who now people my made over did down only way find use "
    "may water long little very after words called just where most know get through back much "
    "before go good new write our used me man too any day same right look think also around "
    "another came come work three word must because does part even place well such here take why "
    "things help put years different away again off went old number great tell men say small every "
    "found still between name should home big give air line set own under read last never us left "
    "end along while might next sound below saw something thought both few those always looked "
    "show "
    "large often together asked house world going want school important until form food keep "
    "children feet land side without boy once animals life enough took sometimes four head above "
    "kind began almost live page got earth need far hand high year mother light parts country "
    "father let night following picture being study second eyes soon times story boys since white "
    "days ever paper hard near sentence better best across during today others however sure means "
    "knew try told young miles sun ways thing whole hear example heard several change answer room "
    "sea against top turned learn point city play toward five using himself usually money seen car "
    "morning given family river stone forest garden window door table bread winter summer spring "
    "autumn rain snow wind cloud storm mountain valley island harbour bridge street village market "
    "music song voice silence letter book library language number question reason idea dream "
    "memory future past present moment hour minute week month century history science machine "
    "engine model token layer weight state memory signal pattern system program computer "
    "network random seed value vector matrix table index queue thread kernel buffer file format "
    "red green blue yellow black brown golden silver dark bright warm cold quiet loud quick slow "
    "deep wide narrow heavy soft sharp strong weak rich poor early late empty full open closed "
    "north south east west inside outside beyond behind within among upon toward between "
    "walk run sleep wake speak listen watch wait build break carry bring leave return follow lead "
    "grow fall rise turn move stand sit hold touch feel love fear hope wish laugh cry sing dance "
    "paint draw count measure teach travel arrive remember forget begin finish understand believe "
    "bird horse dog cat fish tree flower grass leaf root apple berry corn salt sugar milk honey "
    "gold iron copper glass wood cloth rope wheel boat ship train road path field farm hill lake "
    "ocean beach sand star moon sky fire smoke shadow colour shape circle square corner middle "
    "king queen friend neighbour stranger teacher doctor farmer sailor soldier baker singer writer "
    "hello yes please thank sorry maybe perhaps indeed certainly never nothing everything someone "
    "nobody everybody somewhere nowhere already almost really simply slowly quickly finally "
    "suddenly carefully quietly";

// Written with a capital at the start of a sentence, after a space or without.
constexpr char kStarts[] =
    "the a an it he she we they you in on at this that there what when where why how who one and "
    "but so then yes no now hello every some most many after before once if as for my your our";

constexpr char kEndings[] =
    "ing ed er est ly ion tion ness ment ful less able ous ive al ity ism ist ize en es "
    "ch sh th wh ph qu ck ng st tr pr pl br cr gr fl bl ea ee oo ou ai ow igh";

std::string utf8(uint32_t c) {
  const auto byte = [](uint32_t bits) { return static_cast<char>(bits); };
  const auto tail = [&](int shift) { return byte(0x80 | ((c >> shift) & 0x3F)); };
  if (c < 0x80) return {byte(c)};
  if (c < 0x800) return {byte(0xC0 | (c >> 6)), tail(0)};
  if (c < 0x10000) return {byte(0xE0 | (c >> 12)), tail(6), tail(0)};
  return {byte(0xF0 | (c >> 18)), tail(12), tail(6), tail(0)};
}

template <typename Visit>
void forEachWord(const char* list, const Visit& visit) {
  std::istringstream words(list);
  for (std::string word; words >> word;) visit(word);
}

class Builder {
 public:
  // Nothing happens when the token exists.
  void addToken(const std::string& text, float loudness, int32_t type = kTypeNormal) {
    if (!known_.insert(text).second) return;
    out_.data.tokens.push_back(text);
    out_.data.tokenTypes.push_back(type);
    out_.loudness.push_back(loudness);
  }

  // Makes encoding reach `start` followed by the ASCII `letters`, by merges from
  // the left. Every step on the way becomes a token as well: a merged symbol
  // that is not a token would be lost.
  void addChain(const std::string& start, const std::string& letters, float loudness) {
    std::string left = start;
    for (size_t i = 0; i < letters.size(); ++i) {
      const std::string merged = left + letters[i];
      const bool whole = i + 1 == letters.size();
      if (known_.count(merged) == 0) {
        out_.data.merges.push_back(left + " " + letters[i]);
        addToken(merged, whole ? loudness : kPiece);
      }
      left = merged;
    }
  }

  // Loudness of a token that may have been added as a step to a longer one.
  void raise(float loudness, const std::unordered_set<std::string>& texts) {
    for (size_t id = 0; id < out_.data.tokens.size(); ++id) {
      if (texts.count(out_.data.tokens[id]) != 0) out_.loudness[id] = loudness;
    }
  }

  size_t size() const { return out_.data.tokens.size(); }
  DemoVocabulary take() { return std::move(out_); }

 private:
  DemoVocabulary out_;
  std::unordered_set<std::string> known_;
};

void addAscii(Builder& builder) {
  builder.addToken(kSpace, kLetter);
  for (const char* c : {"\t", "\n", "\r"}) builder.addToken(c, kCharacter);
  for (const char* c : {".", ",", "?", "!", ";", ":"}) builder.addToken(c, kPunctuation);
  for (uint32_t c = 0x21; c <= 0x7E; ++c) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    builder.addToken(utf8(c), letter ? kLetter : kCharacter);
  }
}

// Chains that begin with the space marker come first: a better rank keeps the
// letters of a word from joining each other before the word has formed.
void addWords(Builder& builder) {
  std::unordered_set<std::string> whole;
  const auto addWord = [&](const std::string& word) {
    builder.addChain(kSpace, word, kWord);
    whole.insert(kSpace + word);
  };
  const auto capitalised = [](std::string word) {
    word[0] = static_cast<char>(word[0] - 'a' + 'A');
    return word;
  };
  forEachWord(kCommonWords, addWord);
  forEachWord(kStarts, [&](const std::string& word) { addWord(capitalised(word)); });
  builder.raise(kWord, whole);
  forEachWord(kStarts, [&](const std::string& word) {
    const std::string start = capitalised(word);
    builder.addChain(start.substr(0, 1), start.substr(1), kPiece);
  });
  forEachWord(kEndings, [&](const std::string& ending) {
    builder.addChain(ending.substr(0, 1), ending.substr(1), kEnding);
  });
}

void addCharacters(Builder& builder) {
  for (const CodePoints& range : kCharacters) {
    for (uint32_t c = range.first; c <= range.last; ++c) builder.addToken(utf8(c), kCharacter);
  }
}

}  // namespace

DemoVocabulary makeDemoVocabulary(size_t minTokens) {
  Builder builder;
  addAscii(builder);
  addWords(builder);
  addCharacters(builder);
  const auto end = static_cast<int32_t>(builder.size());
  for (const char* text : {"<|endoftext|>", "<|im_start|>", "<|im_end|>"}) {
    builder.addToken(text, kControl, kiv::kTokenTypeControl);
  }
  for (size_t i = 0; builder.size() < minTokens; ++i) {
    builder.addToken(std::string(kSpace) + "filler-" + std::to_string(i), kFiller);
  }
  DemoVocabulary vocabulary = builder.take();
  vocabulary.data.eosId = end;
  vocabulary.data.padId = end;
  vocabulary.data.chatTemplate =
      "{%- for turn in messages -%}\n"
      "<|im_start|>{{ turn.role }}\n"
      "{{ turn.content }}<|im_end|>\n"
      "{% endfor -%}\n"
      "{%- if add_generation_prompt -%}<|im_start|>assistant\n"
      "{% endif -%}\n";
  return vocabulary;
}

}  // namespace zemtool
