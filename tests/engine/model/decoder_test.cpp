// SPDX-License-Identifier: Apache-2.0
// The engine's decoder: whatever runs beside a token, its results have the same bits.
#include "engine/model/decoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <stdexcept>
#include <vector>

#include "engine/model/plain_decoder.h"
#include "engine/model/shaped_model.h"
#include "matmul/thread_team.h"
#include "qwen35_model.h"
#include "runtime_qwen35/levels.h"
#include "runtime_qwen35/open_model.h"

namespace zem {
namespace {

using Floats = std::vector<float>;
using Ids = std::vector<uint32_t>;
using zemtest::openWeights;
using zemtest::randomIds;
using zemtest::smallArchitecture;
using zemtest::TempFile;
using zemtest::writeShapedModel;

// The logits of every token of `ids`, fed in chunks of the given sizes, the last one repeated.
Floats logitsInChunks(Decoder& decoder, SequenceState& sequence, const Ids& ids,
                      std::vector<size_t> sizes) {
  Floats all;
  size_t done = 0;
  for (size_t i = 0; done < ids.size(); ++i) {
    const size_t size = std::min(sizes[std::min(i, sizes.size() - 1)], ids.size() - done);
    const Chunk chunk{&sequence, std::span(ids).subspan(done, size), LogitsOf::All};
    Floats logits;
    decoder.step({&chunk, 1}, logits);
    all.insert(all.end(), logits.begin(), logits.end());
    done += size;
  }
  return all;
}

Floats logitsOf(Decoder& decoder, const Ids& ids, const std::vector<size_t>& sizes = {1}) {
  SequenceState sequence = decoder.newSequence();
  return logitsInChunks(decoder, sequence, ids, sizes);
}

class EngineDecoder : public testing::Test {
 protected:
  void open(const kiv::Architecture& architecture, CacheType cache = CacheType::F16,
            kiv::DType type = kiv::DType::F32) {
    writeShapedModel(file_, architecture, type);
    weights_ = openWeights(file_);
    ASSERT_NE(weights_, nullptr);
    decoder_.emplace(*weights_, cache);
  }
  Ids ids(size_t count, uint32_t seed = 1) const {
    return randomIds(count, decoder_->vocabulary(), seed);
  }

  qwen35::ThreadTeam team_{2};
  qwen35::UseTeam use_{team_};
  TempFile file_;
  std::unique_ptr<Weights> weights_;
  std::optional<Decoder> decoder_;
};

// The largest distance to the formulas in double. The bounds below are what was measured and at
// most a tenth more.
double worstError(const Floats& logits, const Weights& weights, const Ids& ids) {
  zemtest::PlainDecoder plain(weights);
  double worst = 0;
  const float* row = logits.data();
  for (const uint32_t id : ids) {
    for (const double want : plain.next(id)) {
      worst = std::max(worst, std::abs(static_cast<double>(*row++) - want));
    }
  }
  return worst;
}

TEST_F(EngineDecoder, FollowsTheFormulasInDouble) {
  open(smallArchitecture(), CacheType::F32);
  const Ids text = ids(150);
  EXPECT_LE(worstError(logitsOf(*decoder_, text), *weights_, text), 1.15e-4);
}

TEST_F(EngineDecoder, HalfPrecisionCacheStaysClose) {
  open(smallArchitecture());
  const Ids text = ids(150);
  EXPECT_LE(worstError(logitsOf(*decoder_, text), *weights_, text), 1.24e-3);
}

TEST_F(EngineDecoder, OwnHeadIsUsed) {
  kiv::Architecture architecture = smallArchitecture();
  architecture.ownHead = true;
  open(architecture, CacheType::F32);
  EXPECT_NE(&weights_->head(), &weights_->embedding());
  const Ids text = ids(10);
  EXPECT_LE(worstError(logitsOf(*decoder_, text), *weights_, text), 3.4e-5);
}

TEST_F(EngineDecoder, OddShapesFollowTheFormulas) {
  kiv::Architecture architecture = smallArchitecture();
  architecture.layers = 5;
  architecture.fullEvery = 2;
  architecture.heads = 7;
  architecture.kvHeads = 1;
  architecture.headSize = 64;
  architecture.rotarySize = 64;
  architecture.keyHeads = 3;
  architecture.valueHeads = 3;
  architecture.stateSize = 5;
  architecture.width = 33;
  open(architecture, CacheType::F32);
  const Ids text = ids(70);
  EXPECT_LE(worstError(logitsOf(*decoder_, text), *weights_, text), 7e-5);
}

TEST_F(EngineDecoder, ChunksDoNotMatter) {
  open(smallArchitecture());
  const Ids text = ids(200);
  const Floats alone = logitsOf(*decoder_, text);
  for (const std::vector<size_t>& sizes :
       {std::vector<size_t>{200}, {48}, {7}, {64}, {63, 2, 64}, {1, 129, 3}}) {
    EXPECT_EQ(logitsOf(*decoder_, text, sizes), alone) << sizes.front();
  }
}

TEST_F(EngineDecoder, NeighboursInABatchDoNotMatter) {
  open(smallArchitecture());
  constexpr size_t kSequences = 5;
  std::vector<Ids> texts;
  std::vector<Floats> alone;
  for (uint32_t i = 0; i < kSequences; ++i) {
    texts.push_back(ids(100 + 20 * i, i));
    alone.push_back(logitsOf(*decoder_, texts.back()));
  }
  // Each step takes some conversations, each with some tokens.
  std::mt19937 random(5);
  std::vector<SequenceState> sequences;
  for (size_t i = 0; i < kSequences; ++i) sequences.push_back(decoder_->newSequence());
  std::vector<Floats> together(kSequences);
  const size_t n = decoder_->vocabulary();
  for (bool left = true; left;) {
    std::vector<Chunk> chunks;
    std::vector<size_t> owners;
    left = false;
    for (size_t i = 0; i < kSequences; ++i) {
      const size_t done = sequences[i].length();
      if (done == texts[i].size()) continue;
      left = true;
      if (random() % 3 == 0) continue;
      const size_t most = random() % 2 == 0 ? 1 : 30;
      const size_t count = std::min<size_t>(1 + random() % most, texts[i].size() - done);
      chunks.push_back({&sequences[i], std::span(texts[i]).subspan(done, count), LogitsOf::All});
      owners.push_back(i);
    }
    Floats logits;
    decoder_->step(chunks, logits);
    size_t row = 0;
    for (size_t c = 0; c < chunks.size(); ++c) {
      const size_t rows = chunks[c].tokens.size();
      together[owners[c]].insert(together[owners[c]].end(), logits.begin() + row * n,
                                 logits.begin() + (row + rows) * n);
      row += rows;
    }
  }
  for (size_t i = 0; i < kSequences; ++i) EXPECT_EQ(together[i], alone[i]) << i;
}

TEST_F(EngineDecoder, LogitsComeForTheTokensThatAsk) {
  open(smallArchitecture());
  const Ids text = ids(12);
  const Floats all = logitsOf(*decoder_, text, {12});
  const size_t n = decoder_->vocabulary();
  SequenceState sequence = decoder_->newSequence();
  Chunk chunk{&sequence, std::span(text).first(7), LogitsOf::None};
  Floats logits(3);
  decoder_->step({&chunk, 1}, logits);
  EXPECT_TRUE(logits.empty());
  chunk = {&sequence, std::span(text).subspan(7), LogitsOf::Last};
  decoder_->step({&chunk, 1}, logits);
  EXPECT_EQ(logits, Floats(all.end() - n, all.end()));
}

TEST_F(EngineDecoder, RestoredSnapshotGoesOnWithTheSameBits) {
  open(smallArchitecture());
  const Ids text = ids(180);
  const size_t n = decoder_->vocabulary();
  const Floats whole = logitsOf(*decoder_, text, {30});
  for (const size_t at : {0, 1, 63, 64, 65, 128, 150}) {
    SequenceState first = decoder_->newSequence();
    const Ids head(text.begin(), text.begin() + at);
    logitsInChunks(*decoder_, first, head, {20});
    const Snapshot snapshot = first.snapshot();
    // Both go on, into different futures: neither changes what the other sees.
    logitsInChunks(*decoder_, first, ids(40, 9), {5});
    SequenceState second = decoder_->newSequence();
    second.restore(snapshot);
    EXPECT_EQ(second.length(), at);
    const Ids tail(text.begin() + at, text.end());
    EXPECT_EQ(logitsInChunks(*decoder_, second, tail, {17}),
              Floats(whole.begin() + at * n, whole.end()))
        << at;
    first.restore(snapshot);
    EXPECT_EQ(logitsInChunks(*decoder_, first, tail, {40}),
              Floats(whole.begin() + at * n, whole.end()))
        << at;
  }
}

TEST_F(EngineDecoder, SequencesShareFullPages) {
  open(smallArchitecture());
  const size_t page = decoder_->pool().layout().bytes();
  SequenceState first = decoder_->newSequence();
  logitsInChunks(*decoder_, first, ids(130), {48});
  EXPECT_EQ(decoder_->pool().bytesInUse(), 3 * page);
  const Snapshot snapshot = first.snapshot();
  SequenceState second = decoder_->newSequence();
  second.restore(snapshot);
  EXPECT_EQ(decoder_->pool().bytesInUse(), 3 * page);
  logitsInChunks(*decoder_, second, ids(1), {1});
  EXPECT_EQ(decoder_->pool().bytesInUse(), 4 * page) << "the third page, which is half full";
  second.reset();
  first.reset();
  EXPECT_EQ(decoder_->pool().bytesInUse(), 3 * page) << "the snapshot's";
}

TEST_F(EngineDecoder, ThreadsDoNotMatter) {
  kiv::Architecture architecture = smallArchitecture();
  architecture.width = 256;  // products that are worth a team
  architecture.feedForward = 512;
  open(architecture);
  const Ids text = ids(140);
  const Floats alone = logitsOf(*decoder_, text, {48});
  for (const size_t threads : {1, 2, 5}) {
    qwen35::ThreadTeam team(threads);
    const qwen35::UseTeam use(team);
    EXPECT_EQ(logitsOf(*decoder_, text, {48}), alone) << threads;
    EXPECT_EQ(logitsOf(*decoder_, text, {1, 139}), alone) << threads;
  }
}

TEST_F(EngineDecoder, InstructionSetsDoNotMatter) {
  open(smallArchitecture());
  const Ids text = ids(140);
  const Floats best = logitsOf(*decoder_, text, {48});
  for (const qwen35::CpuLevel level : qwen35::cpuLevels()) {
    const qwen35::ForcedCpuLevel forced(level);
    EXPECT_EQ(logitsOf(*decoder_, text, {30, 1}), best) << qwen35::cpuLevelName(level);
  }
}

// Rows of whole blocks everywhere.
kiv::Architecture quantisable() {
  kiv::Architecture architecture = smallArchitecture();
  architecture.width = 256;
  architecture.feedForward = 512;
  architecture.heads = 4;
  architecture.headSize = 64;
  architecture.keyHeads = 2;
  architecture.valueHeads = 4;
  architecture.stateSize = 64;
  architecture.layers = 4;
  return architecture;
}

TEST_F(EngineDecoder, FastArithmeticHasOneResult) {
  for (const kiv::DType type : {kiv::DType::Q4_K, kiv::DType::Q6_K, kiv::DType::Q8_0}) {
    open(quantisable(), CacheType::F16, type);
    const Ids text = ids(70);
    const Floats exact = logitsOf(*decoder_, text, {48});
    Decoder fast(*weights_, CacheType::F16, Arithmetic::Fast);
    const Floats want = logitsOf(fast, text, {48});
    EXPECT_NE(want, exact);
    EXPECT_EQ(logitsOf(fast, text, {1}), want) << kiv::dtypeName(type);
    EXPECT_EQ(logitsOf(fast, text, {2, 31, 5}), want) << kiv::dtypeName(type);
    for (const qwen35::CpuLevel level : qwen35::cpuLevels()) {
      const qwen35::ForcedCpuLevel forced(level);
      EXPECT_EQ(logitsOf(fast, text, {17}), want) << qwen35::cpuLevelName(level);
    }
    double largest = 0;
    double worst = 0;
    for (size_t i = 0; i < want.size(); ++i) {
      largest = std::max(largest, std::abs(static_cast<double>(exact[i])));
      worst = std::max(worst, std::abs(static_cast<double>(exact[i]) - want[i]));
    }
    EXPECT_LE(worst, 1e-2 * largest) << kiv::dtypeName(type);
  }
}

TEST_F(EngineDecoder, FastArithmeticIsExactForFloats) {
  open(smallArchitecture());
  const Ids text = ids(30);
  Decoder fast(*weights_, CacheType::F16, Arithmetic::Fast);
  EXPECT_EQ(logitsOf(fast, text, {9}), logitsOf(*decoder_, text, {9}));
}

TEST_F(EngineDecoder, BadChunksAreRefusedAndChangeNothing) {
  open(smallArchitecture());
  SequenceState sequence = decoder_->newSequence();
  const Ids text = ids(3);
  const Ids outside = {0, static_cast<uint32_t>(decoder_->vocabulary())};
  Floats logits;
  const Chunk good{&sequence, text, LogitsOf::None};
  EXPECT_THROW(decoder_->step(std::vector<Chunk>{{&sequence, {}}}, logits), std::invalid_argument);
  EXPECT_THROW(decoder_->step(std::vector<Chunk>{{&sequence, outside}}, logits),
               std::invalid_argument);
  EXPECT_THROW(decoder_->step(std::vector<Chunk>{good, good}, logits), std::invalid_argument);
  EXPECT_EQ(sequence.length(), 0U);
  EXPECT_FALSE(sequence.broken());
  decoder_->step({}, logits);
  EXPECT_TRUE(logits.empty());
}

// The shape that the plug-in computes, against its decoder.
TEST(EngineBesidePlugin, SameBits) {
  qwen35::ThreadTeam team(2);
  const qwen35::UseTeam use(team);
  zemtest::TinyModelOptions options;
  options.linearLayers = {0, 1, 5};
  const zemtest::TinyModel tiny(options);
  qwen35::OpenModel plugin(tiny, 128);
  ASSERT_TRUE(plugin.bound);
  std::unique_ptr<Weights> weights = openWeights(plugin.file);
  ASSERT_NE(weights, nullptr);
  Decoder decoder(*weights, CacheType::F32);
  const Ids text = randomIds(100, decoder.vocabulary(), 3);
  const Floats engine = logitsOf(decoder, text, {40, 1});
  const size_t n = decoder.vocabulary();
  for (size_t t = 0; t < text.size(); ++t) {
    ASSERT_EQ(plugin.logits(text[t], t),
              Floats(engine.begin() + t * n, engine.begin() + (t + 1) * n))
        << t;
  }
}

TEST(EngineBesidePlugin, SameBitsWithQuantisedWeights) {
  qwen35::ThreadTeam team(2);
  const qwen35::UseTeam use(team);
  for (const kiv::DType type : {kiv::DType::Q4_K, kiv::DType::Q6_K, kiv::DType::Q8_0}) {
    zemtest::TinyModelOptions options;
    options.width = 256;
    options.feedForward = 256;
    options.matrixType = type;
    const zemtest::TinyModel tiny(options);
    qwen35::OpenModel plugin(tiny, 128);
    ASSERT_TRUE(plugin.bound);
    std::unique_ptr<Weights> weights = openWeights(plugin.file);
    ASSERT_NE(weights, nullptr);
    Decoder decoder(*weights, CacheType::F32);
    const Ids text = randomIds(10, decoder.vocabulary(), 3);
    const Floats engine = logitsOf(decoder, text, {6, 1});
    const size_t n = decoder.vocabulary();
    for (size_t t = 0; t < text.size(); ++t) {
      ASSERT_EQ(plugin.logits(text[t], t),
                Floats(engine.begin() + t * n, engine.begin() + (t + 1) * n))
          << kiv::dtypeName(type) << ", token " << t;
    }
  }
}

}  // namespace
}  // namespace zem
