// SPDX-License-Identifier: Apache-2.0
#include "engine/session/session_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "engine/model/shaped_model.h"
#include "matmul/thread_team.h"
#include "support/temp_folder.h"

namespace zem {
namespace {

using Ids = std::vector<uint32_t>;
using Floats = std::vector<float>;
using zemtest::TempFile;

class SessionFileTest : public testing::Test {
 protected:
  SessionFileTest() {
    zemtest::writeShapedModel(model_, zemtest::smallArchitecture());
    weights_ = zemtest::openWeights(model_);
    decoder_.emplace(*weights_, CacheType::F16);
  }

  Floats feed(SequenceState& sequence, const Ids& ids) {
    const Chunk chunk{&sequence, ids, LogitsOf::Last};
    Floats logits;
    decoder_->step({&chunk, 1}, logits);
    return logits;
  }

  // The conversation of these tokens, saved.
  void save(const Ids& ids) {
    SequenceState sequence = decoder_->newSequence();
    feed(sequence, ids);
    const Snapshot snapshot = sequence.snapshot();
    const kiv::Status status = saveSession(file_.string(), *decoder_, ids, snapshot);
    ASSERT_TRUE(status.ok()) << status.message();
  }

  std::string loadMessage() {
    Ids ids = {77};
    Snapshot snapshot;
    const kiv::Status status = loadSession(file_.string(), *decoder_, ids, snapshot);
    if (!status.ok()) {
      EXPECT_EQ(ids, Ids{77});
      EXPECT_EQ(snapshot.recurrent, nullptr);
    }
    std::string message = status.message();
    const std::string front = file_.string() + ": ";
    return message.starts_with(front) ? message.substr(front.size()) : message;
  }

  qwen35::ThreadTeam team_{1};
  qwen35::UseTeam use_{team_};
  TempFile model_;
  TempFile file_;
  std::unique_ptr<Weights> weights_;
  std::optional<Decoder> decoder_;
};

TEST_F(SessionFileTest, RestoredConversationGoesOnWithTheSameBits) {
  const Ids next = zemtest::randomIds(30, 100, 2);
  for (const size_t length : {1, 63, 64, 65, 150}) {
    const Ids ids = zemtest::randomIds(length, 100, 1);
    save(ids);
    Ids loaded;
    Snapshot snapshot;
    const kiv::Status status = loadSession(file_.string(), *decoder_, loaded, snapshot);
    ASSERT_TRUE(status.ok()) << status.message();
    EXPECT_EQ(loaded, ids);
    EXPECT_EQ(snapshot.length, length);
    SequenceState restored = decoder_->newSequence();
    restored.restore(snapshot);
    SequenceState whole = decoder_->newSequence();
    feed(whole, ids);
    EXPECT_EQ(feed(restored, next), feed(whole, next)) << length;
  }
}

TEST_F(SessionFileTest, SameConversationGivesTheSameFile) {
  const Ids ids = zemtest::randomIds(70, 100, 1);
  save(ids);
  const std::vector<uint8_t> first = file_.read();
  save(ids);
  EXPECT_EQ(file_.read(), first);
}

// A snapshot shares its last page with a conversation that went on in it.
TEST_F(SessionFileTest, LaterTokensAreNotInTheFile) {
  const Ids ids = zemtest::randomIds(70, 100, 1);
  save(ids);
  const std::vector<uint8_t> want = file_.read();
  SequenceState sequence = decoder_->newSequence();
  feed(sequence, ids);
  Snapshot snapshot = sequence.snapshot();
  auto dirty = decoder_->pool().make();
  dirty->copyFrom(*snapshot.pages[1]);
  const Floats numbers(64, 9.0F);
  for (size_t position = 6; position < kPagePositions; ++position) {
    for (size_t layer = 0; layer < 2; ++layer) {
      for (size_t head = 0; head < 2; ++head) {
        dirty->store(decoder_->pool().layout(), layer, head, position, numbers.data(),
                     numbers.data());
      }
    }
  }
  snapshot.pages[1] = dirty;
  ASSERT_TRUE(saveSession(file_.string(), *decoder_, ids, snapshot).ok());
  EXPECT_EQ(file_.read(), want);
}

TEST_F(SessionFileTest, OtherModelsAndCachesAreRefused) {
  save(zemtest::randomIds(10, 100, 1));
  const auto saved = weights_.release();
  const std::unique_ptr<Weights> keep(saved);
  decoder_.emplace(*keep, CacheType::F32);
  EXPECT_EQ(loadMessage(), "keeps keys and values in half precision, this engine uses the other");
  TempFile other;
  zemtest::writeShapedModel(other, zemtest::smallArchitecture(), kiv::DType::F32, 2);
  weights_ = zemtest::openWeights(other);
  decoder_.emplace(*weights_, CacheType::F16);
  EXPECT_EQ(loadMessage(), "belongs to another model");
}

// Either gives other bits: the conversation would not go on as it began.
TEST_F(SessionFileTest, AnotherArithmeticIsRefused) {
  save(zemtest::randomIds(10, 100, 1));
  decoder_.emplace(*weights_, CacheType::F16, Arithmetic::Fast);
  EXPECT_EQ(loadMessage(), "was computed with exact products, this engine uses the other");
  save(zemtest::randomIds(10, 100, 1));
  EXPECT_EQ(loadMessage(), "");
  decoder_.emplace(*weights_, CacheType::F16);
  EXPECT_EQ(loadMessage(), "was computed with fast products, this engine uses the other");
}

TEST_F(SessionFileTest, NumbersOfAnUnknownKindAreRefused) {
  save(zemtest::randomIds(10, 100, 1));
  std::vector<uint8_t> bytes = file_.read();
  bytes[12] = 4;
  file_.write(bytes);
  EXPECT_EQ(loadMessage(), "has numbers of an unknown kind");
}

TEST_F(SessionFileTest, FilesThatAreNoneAreRefused) {
  EXPECT_NE(loadMessage().find("cannot read"), std::string::npos);
  file_.write({});
  EXPECT_EQ(loadMessage(), "is not a saved conversation");
  file_.write(std::vector<uint8_t>(100, 'x'));
  EXPECT_EQ(loadMessage(), "is not a saved conversation");
}

TEST_F(SessionFileTest, EveryCutIsRefused) {
  save(zemtest::randomIds(10, 100, 1));
  const std::vector<uint8_t> whole = file_.read();
  for (size_t size = 0; size < whole.size(); size += size < 200 ? 1 : 977) {
    file_.write({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)});
    ASSERT_NE(loadMessage(), "") << size;
  }
  std::vector<uint8_t> longer = whole;
  longer.push_back(0);
  file_.write(longer);
  EXPECT_NE(loadMessage().find("bytes behind its head, needs"), std::string::npos);
}

TEST_F(SessionFileTest, EveryChangedByteIsFound) {
  save(zemtest::randomIds(10, 100, 1));
  const std::vector<uint8_t> whole = file_.read();
  std::mt19937 random(1);
  for (size_t i = 0; i < 400; ++i) {
    std::vector<uint8_t> changed = whole;
    const size_t at = i < 100 ? i : random() % whole.size();
    changed[at] ^= static_cast<uint8_t>(1 + random() % 255);
    file_.write(changed);
    ASSERT_NE(loadMessage(), "") << at;
  }
}

TEST_F(SessionFileTest, VersionIsNamed) {
  save(zemtest::randomIds(10, 100, 1));
  std::vector<uint8_t> bytes = file_.read();
  bytes[8] = 7;
  file_.write(bytes);
  EXPECT_EQ(loadMessage(), "has the version 7, this program reads 1");
}

TEST_F(SessionFileTest, FailuresOfTheDiskAreTold) {
  SequenceState sequence = decoder_->newSequence();
  const Ids ids = {1, 2};
  feed(sequence, ids);
  const kiv::Status status =
      saveSession("/no such folder/file", *decoder_, ids, sequence.snapshot());
  EXPECT_EQ(status.code(), kiv::StatusCode::IOError);
  EXPECT_NE(status.message().find("/no such folder/file"), std::string::npos);
}

}  // namespace
}  // namespace zem
