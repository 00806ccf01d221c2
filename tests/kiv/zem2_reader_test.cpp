// SPDX-License-Identifier: Apache-2.0
#include "kiv/zem2_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "compat/files.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/container_builder.h"
#include "support/opened_reader.h"
#include "support/platform.h"
#include "support/status_matchers.h"
#include "support/temp_file.h"
#include "support/temp_folder.h"

namespace {

using kiv::ZEM2Reader;
using kiv::zem2::SectionType;
using ::testing::AnyOf;
using zemtest::Bytes;
using zemtest::ContainerBuilder;
using zemtest::get;
using zemtest::IsInvalidFormat;
using zemtest::IsOk;
using zemtest::OpenedReader;
using zemtest::openStatus;
using zemtest::set;
using zemtest::TempFile;

// A container with one of everything.
ContainerBuilder full() {
  ContainerBuilder b;
  b.modelType(7).hiddenSize(1ULL << 40).layerCount(32).vocabSize(5);
  b.addMetaStr("general.architecture", "qwen35").addMetaU32Array("a", {1, 2});
  b.addTensor("x", kiv::DType::F32, {2, 1}, {1, 2, 3, 4, 5, 6, 7, 8});
  b.addTensor("y", kiv::DType::F16, {1}, {9, 10});
  b.graph({1, 2, 3}).quantInfo();
  return b;
}

size_t frameSize(const Bytes& file) {
  return zemtest::kHeaderBytes + zemtest::kSectionBytes * get(file, zemtest::header::sectionCount);
}

// Reads whatever lookups offer, so that a sanitizer or the system notices a
// reach outside the mapping.
uint64_t touchEverything(const ZEM2Reader& reader) {
  uint64_t sum = 0;
  for (size_t i = 0; const auto* s = reader.sectionAt(i); ++i) {
    const uint8_t* data = reader.sectionData(static_cast<SectionType>(s->type));
    const uint64_t size = reader.sectionSize(static_cast<SectionType>(s->type));
    for (uint64_t k = 0; k < size; ++k) sum += data[k];
  }
  ZEM2Reader::MetaEntryView meta;
  for (size_t i = 0; reader.metaAt(i, meta); ++i) sum += meta.key.size() + meta.str.size();
  for (size_t i = 0; i < reader.quantInfoCount(); ++i) sum += reader.quantEntry(i).blockSize;
  for (size_t i = 0; i < reader.tensorCount(); ++i) {
    sum += reader.tensorView(i).shape[3];
    const std::string name(reader.tensors()[i].name, 64);
    sum += reader.findTensor(name.c_str()) != nullptr ? 1 : 0;
  }
  kiv::TokenizerData tokenizer;
  sum += reader.readTokenizer(tokenizer) ? 1 : 0;
  return sum;
}

const std::set<std::string>& knownMessages() {
  static const std::set<std::string> messages = {"ZEM2: cannot stat file",
                                                 "ZEM2: file too small",
                                                 "ZEM2: bad magic",
                                                 "ZEM2: unsupported version",
                                                 "ZEM2: truncated section table",
                                                 "ZEM2: big-endian files unsupported",
                                                 "ZEM2: too many sections",
                                                 "ZEM2: CRC mismatch",
                                                 "ZEM2: bad section bounds",
                                                 "ZEM2: missing tensor index",
                                                 "ZEM2: bad quant info",
                                                 "ZEM2: missing weight data",
                                                 "ZEM2: missing meta section",
                                                 "ZEM2: bad meta key",
                                                 "ZEM2: bad meta type",
                                                 "ZEM2: unknown meta type",
                                                 "ZEM2: bad meta u32",
                                                 "ZEM2: bad meta i32",
                                                 "ZEM2: bad meta f32",
                                                 "ZEM2: bad meta u64",
                                                 "ZEM2: bad meta str",
                                                 "ZEM2: bad meta array"};
  return messages;
}

// ---- What an open container shows ----

TEST(Zem2ReaderTest, HeaderFieldsAreThoseOfTheFile) {
  OpenedReader opened(full().build());
  ASSERT_THAT(opened.status, IsOk());
  const ZEM2Reader& reader = opened.reader;
  EXPECT_TRUE(reader.valid());
  EXPECT_EQ(reader.header().modelType, 7U);
  EXPECT_EQ(reader.header().hiddenSize, 1ULL << 40);
  EXPECT_EQ(reader.header().layerCount, 32U);
  EXPECT_EQ(reader.header().vocabSize, 5U);
  EXPECT_EQ(reader.tensorCount(), 2U);
  EXPECT_EQ(reader.sectionCount(), 6U);
  EXPECT_TRUE(reader.aligned64());
}

TEST(Zem2ReaderTest, SectionsAreFoundByTypeAndPosition) {
  const Bytes file = full().build();
  OpenedReader opened(file);
  ASSERT_THAT(opened.status, IsOk());
  const auto* graph = opened.reader.section(SectionType::Graph);
  ASSERT_NE(graph, nullptr);
  EXPECT_EQ(graph, opened.reader.sectionAt(zemtest::sectionIndex(file, SectionType::Graph)));
  EXPECT_EQ(opened.reader.sectionSize(SectionType::Graph), 3U);
  EXPECT_EQ(opened.reader.sectionData(SectionType::Graph)[2], 3);
  EXPECT_EQ(opened.reader.sectionAt(5)->type, 5U);
  EXPECT_EQ(opened.reader.sectionAt(6), nullptr);
  EXPECT_EQ(opened.reader.sectionAt(std::numeric_limits<size_t>::max()), nullptr);
  EXPECT_EQ(opened.reader.section(SectionType::Signature), nullptr);
  EXPECT_EQ(opened.reader.sectionData(SectionType::Signature), nullptr);
  EXPECT_EQ(opened.reader.sectionSize(SectionType::Signature), 0U);
}

TEST(Zem2ReaderTest, WeightsAreSeenInPlace) {
  const Bytes file = full().build();
  OpenedReader opened(file);
  ASSERT_THAT(opened.status, IsOk());
  ASSERT_NE(opened.reader.weightBase(), nullptr);
  EXPECT_EQ(opened.reader.weightBase(), opened.reader.sectionData(SectionType::WeightData));
  EXPECT_EQ(opened.reader.weightSize(), 66U);
  EXPECT_EQ(opened.reader.weightBase()[7], 8);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(opened.reader.weightBase()) % 64, 0U);
}

TEST(Zem2ReaderTest, FirstOfSeveralSectionsOfATypeIsTheOnlyOneSeen) {
  OpenedReader opened(ContainerBuilder()
                          .graph({1})
                          .addSection(SectionType::Graph, {2, 2})
                          .addSection(SectionType::Meta, {9, 9, 9, 9})
                          .build());
  ASSERT_THAT(opened.status, IsOk());
  EXPECT_EQ(opened.reader.sectionSize(SectionType::Graph), 1U);
  EXPECT_EQ(opened.reader.sectionData(SectionType::Graph)[0], 1);
  EXPECT_EQ(opened.reader.metaCount(), 0U);
}

TEST(Zem2ReaderTest, UnknownSectionTypesAreIgnored) {
  OpenedReader opened(ContainerBuilder()
                          .addSection(static_cast<SectionType>(0), {1})
                          .addSection(static_cast<SectionType>(0xFFFFFFFF), {2})
                          .build());
  EXPECT_THAT(opened.status, IsOk());
  EXPECT_EQ(opened.reader.sectionCount(), 6U);
}

TEST(Zem2ReaderTest, FieldsWithoutMeaningAreIgnored) {
  Bytes file = full().build();
  set(file, zemtest::header::padding0, 0xFFFFFFFF);
  set(file, zemtest::header::reserved, ~0ULL);
  set(file, zemtest::header::padding1, 0xFFFFFFFF);
  set(file, 0, zemtest::section::flags, 0xFFFFFFFF);
  zemtest::reseal(file);
  EXPECT_THAT(openStatus(file), IsOk());
}

// ---- Files that are none ----

TEST(Zem2ReaderTest, NullPathIsRefused) {
  EXPECT_THAT(ZEM2Reader().open(nullptr), IsInvalidFormat("ZEM2: null path"));
}

TEST(Zem2ReaderTest, MissingFileIsRefused) {
  EXPECT_THAT(ZEM2Reader().open(TempFile().path()), IsInvalidFormat("ZEM2: cannot open file"));
  EXPECT_THAT(ZEM2Reader().open(""), IsInvalidFormat("ZEM2: cannot open file"));
}

TEST(Zem2ReaderTest, UnreadableFileIsRefused) {
  const TempFile file(full().build());
#ifdef _WIN32
  // Opened by somebody who does not share it.
  const HANDLE sole = CreateFileW(compat::pathOf(file.path()).c_str(), GENERIC_READ, 0, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(sole, INVALID_HANDLE_VALUE);
  const kiv::Status status = ZEM2Reader().open(file.path());
  CloseHandle(sole);
#else
  ASSERT_EQ(::chmod(file.path(), 0), 0);
  // Permissions do not bind the superuser, so this asks as another user.
  const bool isRoot = ::geteuid() == 0;
  if (isRoot && ::seteuid(65534) != 0) GTEST_SKIP() << "the superuser may not change its user";
  const kiv::Status status = ZEM2Reader().open(file.path());
  ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
#endif
  EXPECT_THAT(status, IsInvalidFormat("ZEM2: cannot open file"));
}

TEST(Zem2ReaderTest, FileNameIsUtf8) {
  const zemtest::TempFolder folder;
  const std::string name = folder.path("\xE4\xBD\xA0 z\xC3\xA4hl.zem");
  std::FILE* file = compat::openStream(name.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  const Bytes bytes = full().build();
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
  EXPECT_THAT(ZEM2Reader().open(name.c_str()), IsOk());
}

TEST(Zem2ReaderTest, EmptyFileIsRefusedAsUnmeasurable) {
  EXPECT_THAT(openStatus({}), IsInvalidFormat("ZEM2: cannot stat file"));
}

TEST(Zem2ReaderTest, PipeIsRefusedWithoutWaitingForAWriter) {
  ZEM_SKIP_ON_WINDOWS("pipes in folders");
  const TempFile pipe;
  ASSERT_TRUE(zemtest::makeFifo(pipe.path()));
  EXPECT_THAT(ZEM2Reader().open(pipe.path()), IsInvalidFormat("ZEM2: cannot stat file"));
}

TEST(Zem2ReaderTest, DeviceIsRefused) {
  EXPECT_THAT(ZEM2Reader().open(zemtest::kDevice), IsInvalidFormat("ZEM2: cannot stat file"));
}

TEST(Zem2ReaderTest, DirectoryIsRefused) {
  // Whether it can be opened depends on the system, whether it has a size on the
  // file system.
  EXPECT_THAT(ZEM2Reader().open(::testing::TempDir().c_str()),
              AnyOf(IsInvalidFormat("ZEM2: cannot open file"), IsInvalidFormat("ZEM2: mmap failed"),
                    IsInvalidFormat("ZEM2: cannot stat file")));
}

TEST(Zem2ReaderTest, FileShorterThanTheHeaderIsRefused) {
  Bytes file = full().build();
  file.resize(63);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: file too small"));
  EXPECT_THAT(openStatus({0}), IsInvalidFormat("ZEM2: file too small"));
}

// ---- Header and section table ----

TEST(Zem2ReaderTest, HeaderChecksComeBeforeTheChecksumAndInOrder) {
  Bytes file = full().build();
  set(file, zemtest::header::sectionCount, 0xFFFFFFFF);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: truncated section table"));
  set(file, zemtest::header::endian, 0x04030201);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: big-endian files unsupported"));
  set(file, zemtest::header::version, 1);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: unsupported version"));
  set(file, zemtest::header::version, 3);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: unsupported version"));
  set(file, zemtest::header::magic, 0x334D455A);  // "ZEM3"
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: bad magic"));
}

TEST(Zem2ReaderTest, SixteenSectionsAreTheMost) {
  ContainerBuilder builder;
  for (uint32_t count = 4; count <= 20; ++count) {
    const kiv::Status status = openStatus(builder.build());
    if (count <= 16) {
      EXPECT_THAT(status, IsOk()) << count;
    } else {
      EXPECT_THAT(status, IsInvalidFormat("ZEM2: too many sections")) << count;
    }
    builder.addSection(SectionType::Asset, {static_cast<uint8_t>(count)});
  }
}

TEST(Zem2ReaderTest, SeventeenSectionsInAFileTooShortForTheirTableAreTruncation) {
  Bytes file(zemtest::kHeaderBytes + 17 * zemtest::kSectionBytes);
  const Bytes real = full().build();
  std::copy_n(real.begin(), zemtest::kHeaderBytes, file.begin());
  set(file, zemtest::header::sectionCount, 17);
  zemtest::reseal(file);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: too many sections"));
  file.pop_back();
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: truncated section table"));
}

TEST(Zem2ReaderTest, NoSectionsMeanNoTensorIndex) {
  Bytes file = full().build();
  set(file, zemtest::header::sectionCount, 0);
  zemtest::reseal(file);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: missing tensor index"));
  file.resize(zemtest::kHeaderBytes);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: missing tensor index"));
}

// Bytes of the header whose change an earlier check than the checksum sees.
const char* messageForChangedByte(size_t position, uint64_t sectionCount, const Bytes& file) {
  if (position < 4) return "ZEM2: bad magic";
  if (position < 8) return "ZEM2: unsupported version";
  if (position < 12) return "ZEM2: big-endian files unsupported";
  if (64 + 24 * sectionCount > file.size()) return "ZEM2: truncated section table";
  if (sectionCount > 16) return "ZEM2: too many sections";
  return "ZEM2: CRC mismatch";
}

TEST(Zem2ReaderTest, EveryChangedByteOfHeaderAndSectionTableIsNoticed) {
  const Bytes intact = full().build();
  const TempFile file;
  for (size_t i = 0; i < frameSize(intact); ++i) {
    for (const uint8_t change : Bytes{0x01, 0x10, 0x80, 0xFF}) {
      Bytes damaged = intact;
      damaged[i] ^= change;
      file.write(damaged);
      const uint64_t count = get(damaged, zemtest::header::sectionCount);
      EXPECT_THAT(ZEM2Reader().open(file.path()),
                  IsInvalidFormat(messageForChangedByte(i, count, damaged)))
          << "byte " << i << " changed by " << int{change};
    }
  }
}

TEST(Zem2ReaderTest, ChecksumDoesNotCoverPayloads) {
  const Bytes intact = full().build();
  const TempFile file;
  for (size_t i = frameSize(intact); i < intact.size(); ++i) {
    Bytes damaged = intact;
    damaged[i] ^= 0xFF;
    file.write(damaged);
    ZEM2Reader reader;
    const kiv::Status status = reader.open(file.path());
    const size_t meta = zemtest::sectionOffset(intact, SectionType::Meta);
    const bool isMeta = i >= meta && i < meta + zemtest::sectionSize(intact, SectionType::Meta);
    if (isMeta && !status.ok()) {
      EXPECT_THAT(status.message(), ::testing::HasSubstr(" meta ")) << "byte " << i;
    } else {
      EXPECT_THAT(status, IsOk()) << "byte " << i;
      touchEverything(reader);
    }
  }
}

// ---- Sections ----

// `file` with one field of a section changed behind the checksum.
Bytes withSection(Bytes file, SectionType type, zemtest::SectionField field, uint64_t value) {
  set(file, zemtest::sectionIndex(file, type), field, value);
  zemtest::reseal(file);
  return file;
}

TEST(Zem2ReaderTest, SectionOffsetsMustBeMultiplesOf64) {
  const Bytes file = full().build();
  const uint64_t offset = zemtest::sectionOffset(file, SectionType::Graph);
  for (uint64_t wrong : {uint64_t{65}, offset + 1, offset - 1, offset + 32, offset + 63}) {
    EXPECT_THAT(openStatus(withSection(file, SectionType::Graph, zemtest::section::offset, wrong)),
                IsInvalidFormat("ZEM2: bad section bounds"))
        << wrong;
  }
}

TEST(Zem2ReaderTest, SectionMayEndAtTheEndOfTheFileButNotBeyond) {
  const Bytes file = ContainerBuilder().addSection(SectionType::Asset, {1, 2, 3}).build();
  EXPECT_THAT(openStatus(file), IsOk());
  const auto withSize = [&](uint64_t size) {
    return openStatus(withSection(file, SectionType::Asset, zemtest::section::size, size));
  };
  EXPECT_THAT(withSize(3), IsOk());
  EXPECT_THAT(withSize(4), IsInvalidFormat("ZEM2: bad section bounds"));
  EXPECT_THAT(withSize(~0ULL), IsInvalidFormat("ZEM2: bad section bounds"));
}

TEST(Zem2ReaderTest, SectionEndThatWrapsAroundIsRefused) {
  const Bytes file = ContainerBuilder().addSection(SectionType::Asset, Bytes(64)).build();
  const uint64_t offset = zemtest::sectionOffset(file, SectionType::Asset);
  EXPECT_THAT(openStatus(withSection(file, SectionType::Asset, zemtest::section::size, -offset)),
              IsInvalidFormat("ZEM2: bad section bounds"));
  EXPECT_THAT(
      openStatus(withSection(file, SectionType::Asset, zemtest::section::offset, ~uint64_t{63})),
      IsInvalidFormat("ZEM2: bad section bounds"));
}

TEST(Zem2ReaderTest, EmptySectionMayLieAtTheEndOfTheFileButNotBeyond) {
  const Bytes file = ContainerBuilder()
                         .addSection(SectionType::Signature, Bytes(64))
                         .addSection(SectionType::Asset, {})
                         .build();
  ASSERT_EQ(zemtest::sectionOffset(file, SectionType::Asset), file.size());
  EXPECT_THAT(openStatus(file), IsOk());
  EXPECT_THAT(
      openStatus(withSection(file, SectionType::Asset, zemtest::section::offset, file.size() + 64)),
      IsInvalidFormat("ZEM2: bad section bounds"));
}

TEST(Zem2ReaderTest, BoundsOfSectionsThatNobodyReadsCountToo) {
  Bytes file = full().build();
  const size_t i = zemtest::sectionIndex(file, SectionType::Graph);
  set(file, i, zemtest::section::type, 12345);
  set(file, i, zemtest::section::offset, 1);
  zemtest::reseal(file);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: bad section bounds"));
}

TEST(Zem2ReaderTest, TensorIndexMustExistAndHoldEveryTensor) {
  EXPECT_THAT(openStatus(full().omit(SectionType::TensorIndex).build()),
              IsInvalidFormat("ZEM2: missing tensor index"));
  Bytes file = full().build();
  EXPECT_THAT(
      openStatus(withSection(file, SectionType::TensorIndex, zemtest::section::size, 2 * 128 - 1)),
      IsInvalidFormat("ZEM2: missing tensor index"));
  set(file, zemtest::header::tensorCount, 0xFFFFFFFF);
  zemtest::reseal(file);
  EXPECT_THAT(openStatus(file), IsInvalidFormat("ZEM2: missing tensor index"));
}

TEST(Zem2ReaderTest, TensorIndexMayBeLongerThanItsTensors) {
  Bytes file = full().build();
  set(file, zemtest::header::tensorCount, 1);
  zemtest::reseal(file);
  OpenedReader opened(file);
  EXPECT_THAT(opened.status, IsOk());
  EXPECT_NE(opened.reader.findTensor("x"), nullptr);
  EXPECT_EQ(opened.reader.findTensor("y"), nullptr);
}

TEST(Zem2ReaderTest, QuantInfoMayBeMissingButNotShort) {
  EXPECT_THAT(openStatus(full().quantInfo(false).build()), IsOk());
  const Bytes file = full().build();
  const auto withSize = [&](uint64_t size) {
    return openStatus(withSection(file, SectionType::QuantInfo, zemtest::section::size, size));
  };
  EXPECT_THAT(withSize(2 * 32), IsOk());
  EXPECT_THAT(withSize(2 * 32 - 1), IsInvalidFormat("ZEM2: bad quant info"));
  EXPECT_THAT(withSize(0), IsInvalidFormat("ZEM2: bad quant info"));
}

TEST(Zem2ReaderTest, WeightDataMustExistButMayBeEmpty) {
  EXPECT_THAT(openStatus(full().omit(SectionType::WeightData).build()),
              IsInvalidFormat("ZEM2: missing weight data"));
  EXPECT_THAT(
      openStatus(withSection(full().build(), SectionType::WeightData, zemtest::section::size, 0)),
      IsOk());
}

TEST(Zem2ReaderTest, MissingPartsAreReportedInAFixedOrder) {
  ContainerBuilder b;
  b.omit(SectionType::Meta);
  EXPECT_THAT(openStatus(b.build()), IsInvalidFormat("ZEM2: missing meta section"));
  b.omit(SectionType::WeightData);
  EXPECT_THAT(openStatus(b.build()), IsInvalidFormat("ZEM2: missing weight data"));
  b.omit(SectionType::TensorIndex);
  EXPECT_THAT(openStatus(b.build()), IsInvalidFormat("ZEM2: missing tensor index"));
}

TEST(Zem2ReaderTest, ContainerWithoutTensorsOpens) {
  const Bytes file = ContainerBuilder().noTokenizer().build();
  EXPECT_EQ(zemtest::sectionSize(file, SectionType::TensorIndex), 0U);
  OpenedReader opened(file);
  EXPECT_THAT(opened.status, IsOk());
  EXPECT_EQ(opened.reader.tensorCount(), 0U);
  EXPECT_EQ(opened.reader.quantInfoCount(), 0U);
  EXPECT_EQ(opened.reader.findTensor("x"), nullptr);
}

// ---- Opening and closing ----

void expectClosed(const ZEM2Reader& reader) {
  EXPECT_FALSE(reader.valid());
  EXPECT_FALSE(reader.aligned64());
  EXPECT_EQ(reader.sectionAt(0), nullptr);
  EXPECT_EQ(reader.section(SectionType::Meta), nullptr);
  EXPECT_EQ(reader.sectionData(SectionType::Meta), nullptr);
  EXPECT_EQ(reader.sectionSize(SectionType::Meta), 0U);
  EXPECT_EQ(reader.weightBase(), nullptr);
  EXPECT_EQ(reader.tensors(), nullptr);
  EXPECT_EQ(reader.findTensor("x"), nullptr);
  EXPECT_EQ(reader.tensorView(size_t{0}).ptr, nullptr);
  EXPECT_EQ(reader.tensorView("x").ptr, nullptr);
  EXPECT_EQ(reader.metaCount(), 0U);
  EXPECT_EQ(reader.quantInfoCount(), 0U);
  kiv::TokenizerData tokenizer;
  EXPECT_FALSE(reader.readTokenizer(tokenizer));
}

TEST(Zem2ReaderTest, NewReaderIsClosed) { expectClosed(ZEM2Reader()); }

TEST(Zem2ReaderTest, CloseMayBeRepeatedAndKeepsTheHeader) {
  OpenedReader opened(full().build());
  ASSERT_THAT(opened.status, IsOk());
  for (int i = 0; i < 2; ++i) {
    opened.reader.close();
    expectClosed(opened.reader);
    EXPECT_EQ(opened.reader.header().modelType, 7U);
  }
}

TEST(Zem2ReaderTest, ReaderOpensAgain) {
  OpenedReader opened(full().build());
  const TempFile other(ContainerBuilder().modelType(9).addMetaU32("k", 1).build());
  EXPECT_THAT(opened.reader.open(other.path()), IsOk());
  EXPECT_EQ(opened.reader.header().modelType, 9U);
  EXPECT_EQ(opened.reader.metaCount(), 1U);
  EXPECT_EQ(opened.reader.quantInfoCount(), 0U);
  EXPECT_EQ(opened.reader.findTensor("x"), nullptr);
}

TEST(Zem2ReaderTest, FailedOpenLeavesAnOpenReaderClosed) {
  OpenedReader opened(full().build());
  const TempFile bad(full().rawMeta({1, 0, 0, 0}).build());
  EXPECT_THAT(opened.reader.open(bad.path()), IsInvalidFormat("ZEM2: bad meta key"));
  expectClosed(opened.reader);

  EXPECT_THAT(opened.reader.open(opened.file.path()), IsOk());
  EXPECT_THAT(opened.reader.open(nullptr), IsInvalidFormat("ZEM2: null path"));
  expectClosed(opened.reader);
}

TEST(Zem2ReaderTest, MappingOutlivesTheFilesName) {
  ZEM_SKIP_ON_WINDOWS("mapped files without a name");
  OpenedReader opened(full().build());
  ASSERT_THAT(opened.status, IsOk());
  ASSERT_EQ(::unlink(opened.file.path()), 0);
  EXPECT_EQ(opened.reader.weightBase()[0], 1);
}

#ifdef _WIN32
constexpr size_t kHeldByAReader = 1;

// Whether anybody holds the file: then it cannot be opened for oneself alone.
size_t heldResources(const TempFile& file) {
  const HANDLE sole = CreateFileW(compat::pathOf(file.path()).c_str(), GENERIC_READ, 0, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (sole == INVALID_HANDLE_VALUE) return 1;
  CloseHandle(sole);
  return 0;
}
#else
constexpr size_t kHeldByAReader = 2;

// Descriptors of this process plus its mappings of test files.
size_t heldResources(const TempFile& /*file*/) {
  size_t held = 0;
  for ([[maybe_unused]] const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++held;
  }
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("zem-test-") != std::string::npos) ++held;
  }
  return held;
}
#endif

TEST(Zem2ReaderTest, NothingStaysHeldAfterAFailureOrAClose) {
  Bytes badBounds = full().build();
  set(badBounds, 0, zemtest::section::offset, 1);
  zemtest::reseal(badBounds);
  Bytes badCrc = full().build();
  badCrc[56] ^= 1;
  const std::vector<Bytes> files = {
      {}, {1}, Bytes(64), badCrc, badBounds, full().rawMeta({}).build(), full().build()};
  const TempFile other({1});
  const size_t before = heldResources(other);
  for (const Bytes& file : files) {
    OpenedReader opened(file);
    EXPECT_EQ(heldResources(opened.file), before + (opened.status.ok() ? kHeldByAReader : 0))
        << opened.status.message();
    opened.reader.close();
    EXPECT_EQ(heldResources(opened.file), before) << opened.status.message();
  }
  const TempFile file(full().build());
  {
    ZEM2Reader dropped;
    EXPECT_THAT(dropped.open(file.path()), IsOk());
  }
  EXPECT_EQ(heldResources(file), before);
}

TEST(Zem2ReaderTest, ManyThreadsLookUpAtOnce) {
  OpenedReader opened(full().build());
  ASSERT_THAT(opened.status, IsOk());
  const uint64_t expected = touchEverything(opened.reader);
  std::vector<uint64_t> sums(4);
  {
    std::vector<std::jthread> threads;
    threads.reserve(sums.size());
    for (uint64_t& sum : sums) {
      threads.emplace_back([&] { sum = touchEverything(opened.reader); });
    }
  }
  EXPECT_THAT(sums, ::testing::Each(expected));
}

// ---- Damage at large ----

TEST(Zem2ReaderTest, EveryPrefixOpensOrFailsWithAKnownMessage) {
  const Bytes whole = full().build();
  for (size_t size = 0; size < whole.size(); ++size) {
    OpenedReader opened(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)));
    // The last section ends with the file, so no prefix can be whole.
    ASSERT_FALSE(opened.status.ok()) << size;
    EXPECT_TRUE(knownMessages().contains(opened.status.message())) << opened.status.message();
  }
}

TEST(Zem2ReaderTest, EveryPrefixWithSectionsCutToFitIsSafe) {
  const Bytes whole = full().build();
  for (size_t size = frameSize(whole); size < whole.size(); ++size) {
    Bytes file(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
    for (size_t i = 0; i < get(whole, zemtest::header::sectionCount); ++i) {
      const uint64_t offset = get(file, i, zemtest::section::offset);
      const uint64_t end = offset + get(file, i, zemtest::section::size);
      if (end <= size) continue;
      set(file, i, zemtest::section::offset, std::min<uint64_t>(offset, size / 64 * 64));
      set(file, i, zemtest::section::size, offset < size ? size - offset : 0);
    }
    zemtest::reseal(file);
    OpenedReader opened(file);
    if (opened.status.ok()) {
      touchEverything(opened.reader);
    } else {
      EXPECT_TRUE(knownMessages().contains(opened.status.message())) << opened.status.message();
    }
  }
}

TEST(Zem2ReaderTest, RandomDamageBehindTheChecksumIsSafe) {
  const Bytes intact = full().build();
  const TempFile file;
  std::mt19937 random(20240229);
  size_t opens = 0;
  for (int round = 0; round < 4000; ++round) {
    Bytes damaged = intact;
    for (uint32_t hits = 1 + random() % 4; hits > 0; --hits) {
      // Half of the hits go to the frame, which is small.
      const size_t range = random() % 2 == 0 ? frameSize(intact) : intact.size();
      const size_t at = 12 + random() % (range - 12);
      damaged[at] = static_cast<uint8_t>(random() % 3 == 0 ? 0xFF : random());
    }
    zemtest::reseal(damaged);
    file.write(damaged);
    ZEM2Reader reader;
    const kiv::Status status = reader.open(file.path());
    if (status.ok()) {
      ++opens;
      touchEverything(reader);
    } else {
      EXPECT_TRUE(knownMessages().contains(status.message())) << status.message();
    }
  }
  // Both outcomes were exercised.
  EXPECT_GT(opens, 100U);
  EXPECT_LT(opens, 3900U);
}

// ---- The document ----

// The bytes of the hex dump in docs/container-format.md: lines of an eight-digit
// offset, a colon, and eight groups of a space and four digits.
Bytes documentedExample() {
  std::ifstream document(ZEM_TEST_DATA "/../../docs/container-format.md");
  Bytes bytes;
  for (std::string line; std::getline(document, line);) {
    if (line.size() < 49 || line.find_first_not_of("0123456789abcdef") != 8) continue;
    EXPECT_EQ(std::stoul(line.substr(0, 8), nullptr, 16), bytes.size());
    for (size_t i = 0; i < 16; ++i) {
      const size_t digits = 10 + i / 2 * 5 + i % 2 * 2;
      bytes.push_back(static_cast<uint8_t>(std::stoul(line.substr(digits, 2), nullptr, 16)));
    }
  }
  return bytes;
}

TEST(Zem2ReaderTest, DocumentedExampleOpensAsDescribed) {
  const Bytes file = documentedExample();
  ASSERT_EQ(file.size(), 512U);
  OpenedReader opened(file);
  ASSERT_THAT(opened.status, IsOk());
  EXPECT_EQ(opened.reader.header().crc64, 0x53FE1D59FE7CF3C1U);
  EXPECT_EQ(opened.reader.header().hiddenSize, 2U);
  std::string architecture;
  EXPECT_TRUE(opened.reader.getMetaStr("general.architecture", architecture));
  EXPECT_EQ(architecture, "qwen35");
  kiv::TokenizerData tokenizer;
  ASSERT_TRUE(opened.reader.readTokenizer(tokenizer));
  EXPECT_THAT(tokenizer.tokens, ::testing::ElementsAre("a", "b"));
  EXPECT_EQ(tokenizer.eosId, 1);
  const auto view = opened.reader.tensorView("w");
  ASSERT_EQ(view.size, 8U);
  float values[2];
  std::memcpy(values, view.ptr, sizeof(values));
  EXPECT_THAT(values, ::testing::ElementsAre(1.0F, -0.5F));
}

// ---- The checksum ----

uint64_t crcOf(std::string_view text) {
  return kiv::zem2::crc64(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

TEST(Crc64Test, ReferenceValues) {
  EXPECT_EQ(kiv::zem2::crc64(nullptr, 0), 0U);
  EXPECT_EQ(crcOf(""), 0U);
  EXPECT_EQ(crcOf(std::string_view("\0", 1)), 0U);
  EXPECT_EQ(crcOf("\x01"), 0x3C3B78E888D80FE1U);
  EXPECT_EQ(crcOf("\x80"), 0x42F0E1EBA9EA3693U);
  EXPECT_EQ(crcOf("123456789"), 0x4DB9A9F87EC10C59U);
}

TEST(Crc64Test, EqualsTheBitwiseDefinitionWholeAndInPieces) {
  std::mt19937 random(64);
  for (int round = 0; round < 300; ++round) {
    Bytes data(random() % 1000);
    for (uint8_t& byte : data) byte = static_cast<uint8_t>(random());
    const uint64_t expected = zemtest::bitwiseCrc(data.data(), data.size());
    EXPECT_EQ(kiv::zem2::crc64(data.data(), data.size()), expected) << data.size();

    const size_t cut = random() % (data.size() + 1);
    const uint64_t head = kiv::zem2::crc64Update(0, data.data(), cut);
    EXPECT_EQ(kiv::zem2::crc64Update(head, data.data() + cut, data.size() - cut), expected);
  }
}

}  // namespace
