// SPDX-License-Identifier: Apache-2.0
#include "engine/session/session_file.h"

#include <array>
#include <cstring>
#include <utility>

#include "compat/replacing_file.h"
#include "kiv/container/byte_cursor.h"
#include "kiv/container/mapped_file.h"
#include "kiv/math/checked.h"

namespace zem {
namespace {

using kiv::Status;

constexpr std::array<uint8_t, 8> kMagic = {'Z', 'E', 'M', 'C', 'H', 'A', 'T', 0};
constexpr uint32_t kVersion = 1;

// FNV-1a over words of eight bytes, the last one filled up with zeros.
class Checksum {
 public:
  void add(const void* bytes, size_t count) {
    const auto* from = static_cast<const uint8_t*>(bytes);
    for (; count > 0 && pending_ > 0; --count) addByte(*from++);
    for (; count >= sizeof(uint64_t); count -= sizeof(uint64_t), from += sizeof(uint64_t)) {
      uint64_t word = 0;
      std::memcpy(&word, from, sizeof word);
      addWord(word);
    }
    for (; count > 0; --count) addByte(*from++);
  }
  uint64_t value() const { return pending_ == 0 ? hash_ : mixed(hash_, word_); }

 private:
  static uint64_t mixed(uint64_t hash, uint64_t word) { return (hash ^ word) * 0x100000001b3; }
  void addWord(uint64_t word) { hash_ = mixed(hash_, word); }
  void addByte(uint8_t byte) {
    word_ |= uint64_t{byte} << (8 * pending_);
    if (++pending_ < sizeof(uint64_t)) return;
    addWord(word_);
    word_ = 0;
    pending_ = 0;
  }

  uint64_t hash_ = 0xcbf29ce484222325;
  uint64_t word_ = 0;
  size_t pending_ = 0;
};

// Parts of Head::numbers.
constexpr uint32_t kSinglePrecision = 1;
constexpr uint32_t kFastProducts = 2;

struct Head {
  uint32_t numbers = 0;
  uint64_t fingerprint = 0;
  uint64_t tokens = 0;
  uint64_t recurrentFloats = 0;
  uint64_t pages = 0;
  uint64_t pageBytes = 0;
};

size_t pagesFor(size_t tokens) { return (tokens + kPagePositions - 1) / kPagePositions; }

// What the head of a file of `tokens` tokens has to be.
Head headFor(Decoder& decoder, uint64_t tokens) {
  const PageLayout& layout = decoder.pool().layout();
  Head head;
  if (layout.type() == CacheType::F32) head.numbers |= kSinglePrecision;
  if (decoder.arithmetic() == Arithmetic::Fast) head.numbers |= kFastProducts;
  head.fingerprint = fingerprintOf(decoder.weights());
  head.tokens = tokens;
  head.recurrentFloats = decoder.recurrentBytes() / sizeof(float);
  head.pages = pagesFor(tokens);
  head.pageBytes = layout.bytes();
  return head;
}

class SessionWriter {
 public:
  bool open(const std::string& path) { return file_.open(path); }
  bool append(const void* bytes, size_t count) {
    checksum_.add(bytes, count);
    return file_.append(bytes, count);
  }
  template <typename Number>
  bool append(Number value) {
    return append(&value, sizeof value);
  }
  bool commit() {
    const uint64_t sum = checksum_.value();
    return file_.append(&sum, sizeof sum) && file_.commit();
  }
  const std::string& error() const { return file_.error(); }

 private:
  compat::ReplacingFile file_;
  Checksum checksum_;
};

bool writeHead(SessionWriter& writer, const Head& head) {
  return writer.append(kMagic.data(), kMagic.size()) && writer.append(kVersion) &&
         writer.append(head.numbers) && writer.append(head.fingerprint) &&
         writer.append(head.tokens) && writer.append(head.recurrentFloats) &&
         writer.append(head.pages) && writer.append(head.pageBytes);
}

// The last page may hold what was said later.
bool writePages(SessionWriter& writer, Decoder& decoder, const Snapshot& snapshot) {
  const PageLayout& layout = decoder.pool().layout();
  for (size_t i = 0; i < snapshot.pages.size(); ++i) {
    const size_t filled = snapshot.length - i * kPagePositions;
    if (filled >= kPagePositions) {
      if (!writer.append(snapshot.pages[i]->data(), layout.bytes())) return false;
      continue;
    }
    const std::shared_ptr<Page> copy = decoder.pool().make();
    copy->copyFrom(*snapshot.pages[i]);
    copy->clearFrom(layout, filled);
    if (!writer.append(copy->data(), layout.bytes())) return false;
  }
  return true;
}

class SessionReader {
 public:
  SessionReader(const std::string& path, const kiv::MappedFile& file, Decoder& decoder)
      : path_(path), file_(file), cursor_(file.data(), file.size()), decoder_(decoder) {}

  Status read(std::vector<uint32_t>& tokens, Snapshot& snapshot) {
    Head head;
    Status status = readHead(head);
    if (status.ok()) status = checkChecksum();
    if (status.ok()) status = readTokens(head, tokens);
    if (status.ok()) readState(head, snapshot);
    return status;
  }

 private:
  Status bad(const std::string& what) const { return kiv::invalidFormat(path_ + ": " + what); }

  Status readHead(Head& head) {
    const uint8_t* magic = nullptr;
    uint32_t version = 0;
    if (!cursor_.view(magic, kMagic.size()) ||
        std::memcmp(magic, kMagic.data(), kMagic.size()) != 0) {
      return bad("is not a saved conversation");
    }
    if (!cursor_.read(version)) return bad("is cut short");
    if (version != kVersion) {
      return bad("has the version " + std::to_string(version) + ", this program reads " +
                 std::to_string(kVersion));
    }
    const bool whole = cursor_.read(head.numbers) && cursor_.read(head.fingerprint) &&
                       cursor_.read(head.tokens) && cursor_.read(head.recurrentFloats) &&
                       cursor_.read(head.pages) && cursor_.read(head.pageBytes);
    return whole ? checkHead(head) : bad("is cut short");
  }

  Status checkHead(const Head& head) const {
    if (head.tokens == 0 || head.tokens > file_.size() / sizeof(uint32_t)) {
      return bad("says that it has " + std::to_string(head.tokens) + " tokens, which do not fit");
    }
    const Head needed = headFor(decoder_, head.tokens);
    if (head.fingerprint != needed.fingerprint) return bad("belongs to another model");
    const uint32_t different = head.numbers ^ needed.numbers;
    if ((different & kSinglePrecision) != 0) {
      return bad(std::string("keeps keys and values in ") +
                 ((head.numbers & kSinglePrecision) == 0 ? "half" : "single") +
                 " precision, this engine uses the other");
    }
    if ((different & kFastProducts) != 0) {
      return bad(std::string("was computed with ") +
                 ((head.numbers & kFastProducts) == 0 ? "exact" : "fast") +
                 " products, this engine uses the other");
    }
    if (different != 0) return bad("has numbers of an unknown kind");
    if (head.recurrentFloats != needed.recurrentFloats || head.pages != needed.pages ||
        head.pageBytes != needed.pageBytes) {
      return bad("has other sizes than the model");
    }
    uint64_t rest = kiv::saturatingMul(head.pages, head.pageBytes);
    rest = kiv::saturatingAdd(rest, head.recurrentFloats * sizeof(float));
    rest = kiv::saturatingAdd(rest, head.tokens * sizeof(uint32_t) + sizeof(uint64_t));
    if (rest == cursor_.remaining()) return {};
    return bad("has " + std::to_string(cursor_.remaining()) + " bytes behind its head, needs " +
               std::to_string(rest));
  }

  Status checkChecksum() const {
    const uint64_t covered = file_.size() - sizeof(uint64_t);
    Checksum sum;
    sum.add(file_.data(), covered);
    uint64_t stated = 0;
    std::memcpy(&stated, file_.data() + covered, sizeof stated);
    return sum.value() == stated ? Status() : bad("is damaged: its checksum does not fit");
  }

  Status readTokens(const Head& head, std::vector<uint32_t>& tokens) {
    tokens.resize(head.tokens);
    for (uint32_t& token : tokens) {
      (void)cursor_.read(token);
      if (token >= decoder_.vocabulary()) {
        return bad("has the token " + std::to_string(token) + ", the model has " +
                   std::to_string(decoder_.vocabulary()));
      }
    }
    return {};
  }

  // The sizes are checked: nothing can be missing.
  void readState(const Head& head, Snapshot& snapshot) {
    Snapshot found = decoder_.newSequence().snapshot();
    found.length = head.tokens;
    auto recurrent = std::make_shared<RecurrentState>(*found.recurrent);
    copy(recurrent->data(), recurrent->bytes());
    found.recurrent = std::move(recurrent);
    for (uint64_t i = 0; i < head.pages; ++i) {
      found.pages.push_back(decoder_.pool().make());
      copy(found.pages.back()->data(), head.pageBytes);
    }
    snapshot = std::move(found);
  }

  void copy(void* to, size_t bytes) {
    const uint8_t* from = nullptr;
    if (cursor_.view(from, bytes)) std::memcpy(to, from, bytes);
  }

  const std::string& path_;
  const kiv::MappedFile& file_;
  kiv::ByteCursor cursor_;
  Decoder& decoder_;
};

}  // namespace

uint64_t fingerprintOf(const Weights& weights) {
  const kiv::ZEM2Reader& reader = weights.loader().reader();
  Checksum sum;
  for (const auto type : {kiv::zem2::SectionType::Meta, kiv::zem2::SectionType::TensorIndex}) {
    sum.add(reader.sectionData(type), reader.sectionSize(type));
  }
  const uint64_t size = reader.weightSize();
  sum.add(&size, sizeof size);
  constexpr uint64_t kSamples = 1024;
  constexpr uint64_t kSampleBytes = 64;
  for (uint64_t i = 0; i < kSamples && size >= kSampleBytes; ++i) {
    sum.add(reader.weightBase() + (size - kSampleBytes) / kSamples * i, kSampleBytes);
  }
  return sum.value();
}

Status saveSession(const std::string& path, Decoder& decoder, const std::vector<uint32_t>& tokens,
                   const Snapshot& snapshot) {
  SessionWriter writer;
  const RecurrentState& recurrent = *snapshot.recurrent;
  const bool written = writer.open(path) && writeHead(writer, headFor(decoder, tokens.size())) &&
                       writer.append(tokens.data(), tokens.size() * sizeof(uint32_t)) &&
                       writer.append(recurrent.data(), recurrent.bytes()) &&
                       writePages(writer, decoder, snapshot) && writer.commit();
  return written ? Status() : kiv::ioError(writer.error());
}

Status loadSession(const std::string& path, Decoder& decoder, std::vector<uint32_t>& tokens,
                   Snapshot& snapshot) {
  kiv::MappedFile file;
  Status status = file.open(path);
  if (!status.ok()) return status;
  std::vector<uint32_t> found;
  status = SessionReader(path, file, decoder).read(found, snapshot);
  if (status.ok()) tokens = std::move(found);
  return status;
}

}  // namespace zem
