// SPDX-License-Identifier: Apache-2.0
// A saved conversation with changed bytes, as the engine restores it. An input is a list of
// changes to a sound file: where, and what follows; then a size. The checksum is mended, so that
// what lies behind it is reached. What opens goes on by a token.
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/model/shaped_model.h"
#include "engine/session/session_file.h"
#include "fuzz.h"
#include "matmul/thread_team.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kMostChanges = 16;

// FNV-1a over words, as the format has it.
uint64_t checksumOf(const uint8_t* bytes, size_t count) {
  uint64_t hash = 0xcbf29ce484222325;
  for (size_t i = 0; i < count; i += 8) {
    uint64_t word = 0;
    std::memcpy(&word, bytes + i, count - i < 8 ? count - i : 8);
    hash = (hash ^ word) * 0x100000001b3;
  }
  return hash;
}

class Chat {
 public:
  Chat() {
    zemtest::writeShapedModel(model_, zemtest::smallArchitecture());
    weights_ = zemtest::openWeights(model_);
    decoder_.emplace(*weights_, zem::CacheType::F16);
    zem::SequenceState sequence = decoder_->newSequence();
    const std::vector<uint32_t> ids = {1, 2, 3, 4, 5};
    const zem::Chunk chunk{&sequence, ids, zem::LogitsOf::None};
    decoder_->step({&chunk, 1}, logits_);
    const zemtest::TempFile saved;
    const kiv::Status status =
        zem::saveSession(saved.string(), *decoder_, ids, sequence.snapshot());
    zemfuzz::require(status.ok(), "the sound conversation was not saved");
    sound_ = saved.read();
  }

  void restore(zemfuzz::Input& in) {
    Bytes bytes = sound_;
    const size_t count = in.byte() % (kMostChanges + 1);
    for (size_t i = 0; i < count; ++i) bytes[in.number(4) % bytes.size()] = in.byte();
    if (in.byte() % 4 == 0) bytes.resize(in.number(4) % (bytes.size() + 64));
    if (bytes.size() >= 8) {
      const uint64_t sum = checksumOf(bytes.data(), bytes.size() - 8);
      std::memcpy(bytes.data() + bytes.size() - 8, &sum, sizeof sum);
    }
    file_.write(bytes);
    std::vector<uint32_t> tokens;
    zem::Snapshot snapshot;
    if (!zem::loadSession(file_.path(), *decoder_, tokens, snapshot).ok()) return;
    zemfuzz::require(!tokens.empty() && snapshot.length == tokens.size(), "tokens");
    zem::SequenceState sequence = decoder_->newSequence();
    sequence.restore(snapshot);
    const zem::Chunk chunk{&sequence, {tokens.data(), 1}, zem::LogitsOf::Last};
    decoder_->step({&chunk, 1}, logits_);
  }

 private:
  qwen35::ThreadTeam team_{1};
  qwen35::UseTeam use_{team_};
  zemtest::TempFile model_;
  zemfuzz::MemoryFile file_;
  std::unique_ptr<zem::Weights> weights_;
  std::optional<zem::Decoder> decoder_;
  std::vector<float> logits_;
  Bytes sound_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Chat chat;
  zemfuzz::Input in(data, size);
  chat.restore(in);
  return 0;
}
