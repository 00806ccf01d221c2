// SPDX-License-Identifier: Apache-2.0
// Twenty thousand containers that differ from a sound one in one field, in two, or in
// length. Each is opened and asked for a turn, by the plug-in and by the engine. Whatever becomes
// of it, it becomes so soon, without a large allocation, and without harm to the next one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "engine/recording_listener.h"
#include "kiv/zem_loader.h"
#include "mutation/largest_request.h"
#include "runtime_qwen35_vulkan/cpu_only.h"
#include "support/smallest_model.h"
#include "support/temp_file.h"
#include "support/thorough.h"
#include "zem/plugin.h"

namespace zemtest {
namespace {

constexpr size_t kMutations = 20000;
constexpr size_t kShards = 16;
// Of processor time: a machine that is busy with other work makes a short run a long
// wait. What sleeps meets CTest's own limit.
constexpr double kLongestSeconds = 2;

struct Change {
  Field field;
  uint64_t value;
};

// Fields that become other values, in a file that ends after `size` bytes.
struct Mutation {
  std::vector<Change> changes;
  size_t size;
};

class Enumeration {
 public:
  explicit Enumeration(const Bytes& file) : file_(file) {
    single(headerFields());
    single(sectionFields(file));
    single(metadataFields(file));
    single(tokenizerFields(file));
    for (const size_t tensor : ownTensors()) {
      single(tensorFields(file, tensor));
      single(quantFields(file, tensor));
      single(weightFields(file, tensor));
      pairs(tensor);
    }
    sectionPairs();
    cuts();
  }

  // Mutation `i` of `kMutations`, which lie evenly over all of them.
  const Mutation& at(size_t i) const { return all_[i * all_.size() / kMutations]; }
  size_t count() const { return all_.size(); }

 private:
  void single(const std::vector<Field>& fields) {
    for (const Field& field : fields) {
      for (const uint64_t value : mutatedValues(file_, field)) {
        all_.push_back({{{field, value}}, file_.size()});
      }
    }
  }

  // Those of the first two blocks and outside the blocks: the others are read by
  // the same code from the same bytes.
  std::vector<size_t> ownTensors() const {
    std::vector<size_t> own;
    for (size_t i = 0; i < get(file_, header::tensorCount); ++i) {
      const auto* name = reinterpret_cast<const char*>(file_.data() + tensorOffset(file_, i));
      const std::string_view text(name, get(file_, i, tensor::nameLen));
      if (!text.starts_with("blk.") || text.starts_with("blk.0.") || text.starts_with("blk.1.")) {
        own.push_back(i);
      }
    }
    return own;
  }

  // Two numbers that are only wrong together: products and sums that overflow.
  void both(const Field& a, const Field& b) {
    constexpr std::array<uint64_t, 6> kFactors = {
        0, 3, uint64_t{1} << 31, uint64_t{1} << 32, uint64_t{1} << 62, ~uint64_t{0}};
    for (const uint64_t x : kFactors) {
      for (const uint64_t y : kFactors) all_.push_back({{{a, x}, {b, y}}, file_.size()});
    }
    const uint64_t from = getUint(file_, a.offset, a.width);
    all_.push_back({{{a, ~uint64_t{0} - 63}, {b, 64}}, file_.size()});
    all_.push_back({{{a, from + 64}, {b, 0 - from - 64}}, file_.size()});
  }

  void pairs(size_t tensor) {
    const auto field = [&](const TensorField& f) {
      return Field{tensorOffset(file_, tensor) + f.offset, f.width};
    };
    both(field(tensor::shape0), field(tensor::shape1));
    both(field(tensor::offset), field(tensor::size));
    for (uint64_t type = 0; type <= 11; ++type) {
      for (const uint64_t extent : {uint64_t{0}, uint64_t{1}, uint64_t{256}, uint64_t{1} << 60}) {
        all_.push_back(
            {{{field(tensor::dtype), type}, {field(tensor::shape0), extent}}, file_.size()});
      }
    }
  }

  void sectionPairs() {
    for (size_t i = 0; i < get(file_, header::sectionCount); ++i) {
      const size_t at = kHeaderBytes + kSectionBytes * i;
      both({at + section::offset.offset, section::offset.width},
           {at + section::size.offset, section::size.width});
    }
  }

  // Every length up to the metadata's end, then one in every 61.
  void cuts() {
    const size_t near = sectionOffset(file_, kiv::zem2::SectionType::Tokenizer);
    for (size_t size = 1; size < file_.size(); size += size < near ? 1 : 61) {
      all_.push_back({{}, size});
    }
  }

  const Bytes& file_;
  std::vector<Mutation> all_;
};

const Bytes& soundModel() {
  static const Bytes bytes = smallestModel();
  return bytes;
}

const Enumeration& mutations() {
  static const Enumeration all(soundModel());
  return all;
}

// A file in which only the bytes that differ are written.
class MutableFile {
 public:
  MutableFile() : now_(soundModel()), file_(soundModel()) {
    stream_.open(file_.string(), std::ios::binary | std::ios::in | std::ios::out);
  }

  const char* path() const { return file_.path(); }

  void apply(const Mutation& mutation) {
    for (const Change& change : mutation.changes) set(change.field, change.value);
    reseal(now_);
    write({header::crc64.offset, header::crc64.width});
    stream_.flush();
    if (mutation.size < now_.size()) std::filesystem::resize_file(file_.path(), mutation.size);
  }

  void restore(const Mutation& mutation) {
    if (mutation.size < now_.size()) {
      write({mutation.size, now_.size() - mutation.size});
    }
    for (const Change& change : mutation.changes) {
      set(change.field, getUint(soundModel(), change.field.offset, change.field.width));
    }
    reseal(now_);
    write({header::crc64.offset, header::crc64.width});
    stream_.flush();
    ASSERT_TRUE(stream_.good());
  }

 private:
  void set(const Field& field, uint64_t value) {
    setUint(now_, field.offset, field.width, value);
    write(field);
  }
  void write(const Field& field) {
    stream_.seekp(static_cast<std::streamoff>(field.offset));
    stream_.write(reinterpret_cast<const char*>(now_.data() + field.offset),
                  static_cast<std::streamsize>(field.width));
  }

  Bytes now_;
  TempFile file_;
  std::fstream stream_;
};

// What a session says: that it cannot be opened and why, or the turn's result and
// its text.
std::string outcomeOf(const char* path) {
  const ZEMRuntimeDescriptorV2& api = *zem_plugin_runtimes_v2(nullptr);
  std::array<char, 256> text{};
  ZEMRuntimeHandle* session = nullptr;
  const int created = api.create(path, kSmallestHint, &session, text.data(), text.size());
  EXPECT_EQ(created == 0, session != nullptr);
  if (session == nullptr) {
    EXPECT_EQ(created, 1);
    EXPECT_STRNE(text.data(), "");
    return std::string("create: ") + text.data();
  }
  const int turned = api.chat_turn(session, kSmallestTurn, text.data(), text.size());
  EXPECT_TRUE(turned == 0 || turned == 1) << turned;
  EXPECT_TRUE(turned == 0 || text[0] == '\0') << text.data();
  EXPECT_EQ(api.reset(session), 0);
  api.destroy(session);
  return "turn " + std::to_string(turned) + ": " + text.data();
}

void openAlone(const char* path) {
  kiv::ZEMLoader loader;
  const kiv::Status status = loader.open(path);
  EXPECT_EQ(status.ok(), loader.valid());
  EXPECT_EQ(status.ok(), status.message().empty());
}

// The same of an engine: why it cannot be opened or asked, or the ids of its reply.
std::string engineOutcomeOf(const char* path) {
  std::unique_ptr<zem::Engine> engine;
  const zem::EngineOptions options = {.threads = 1, .sequences = 1, .context = 64};
  const kiv::Status opened = zem::Engine::open(path, options, engine);
  EXPECT_EQ(opened.ok(), engine != nullptr);
  EXPECT_EQ(opened.ok(), opened.message().empty());
  if (engine == nullptr) return opened.message();
  zem::Request request;
  request.prompt = {0};
  request.sampling.temperature = 0;
  request.stops.maxTokens = 2;
  const auto listener = std::make_shared<RecordingListener>();
  zem::RequestHandle handle;
  const kiv::Status asked = engine->submit(request, listener, handle);
  if (!asked.ok()) return asked.message();
  std::string outcome(nameOf(listener->waitForEnd().reason));
  for (const uint32_t id : listener->ids()) outcome += " " + std::to_string(id);
  return outcome;
}

std::string describe(const Mutation& mutation) {
  std::string text = "file of " + std::to_string(mutation.size) + " bytes";
  for (const Change& c : mutation.changes) {
    text += ", " + std::to_string(c.field.width) + " bytes at " + std::to_string(c.field.offset) +
            " = " + std::to_string(c.value);
  }
  return text;
}

TEST(SoundModelTest, ThereAreEnoughOfThem) { EXPECT_GE(mutations().count(), kMutations); }

TEST(SoundModelTest, TheSoundModelAnswers) {
  const MutableFile file;
  testing::internal::CaptureStderr();
  EXPECT_EQ(outcomeOf(file.path()), "turn 0: x");
  EXPECT_THAT(engineOutcomeOf(file.path()), testing::StartsWith("length "));
  testing::internal::GetCapturedStderr();
}

class MutationTest : public ::testing::TestWithParam<size_t> {};

TEST_P(MutationTest, EndsSoonAndWithoutHarm) {
  omp_set_num_threads(1);
  MutableFile file;
  testing::internal::CaptureStderr();  // a line a session
  const std::string sound = outcomeOf(file.path());
  const std::string soundEngine = engineOutcomeOf(file.path());
  for (size_t i = GetParam(); i < kMutations && !HasFailure(); i += kShards) {
    const Mutation& mutation = mutations().at(i);
    SCOPED_TRACE(describe(mutation));
    file.apply(mutation);
    const std::clock_t start = std::clock();
    openAlone(file.path());
    outcomeOf(file.path());
    engineOutcomeOf(file.path());
    EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, kLongestSeconds);
    EXPECT_LE(largestRequest(), kLargestAllocation);
    file.restore(mutation);
  }
  EXPECT_EQ(outcomeOf(file.path()), sound);
  EXPECT_EQ(engineOutcomeOf(file.path()), soundEngine);
  testing::internal::GetCapturedStderr();
}

size_t shardsRun() { return thorough() ? kShards : 1; }
INSTANTIATE_TEST_SUITE_P(Shards, MutationTest, ::testing::Range(size_t{0}, shardsRun()));

}  // namespace
}  // namespace zemtest
