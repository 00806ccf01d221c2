// SPDX-License-Identifier: Apache-2.0
// Any bytes as a container: whatever opens can be looked at through every accessor.
// A checksum that does not fit is mended, for the checks behind it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz.h"
#include "kiv/zem_loader.h"
#include "support/container_builder.h"

namespace {

using zemfuzz::require;
using zemfuzz::touch;
using SectionType = kiv::zem2::SectionType;

void lookAtSections(const kiv::ZEM2Reader& reader) {
  for (size_t i = 0; reader.sectionAt(i) != nullptr; ++i) {
    const auto type = static_cast<SectionType>(reader.sectionAt(i)->type);
    require(reader.section(type) != nullptr, "a section of the table is not found");
    touch(reader.sectionData(type), reader.sectionSize(type));
  }
  require(reader.sectionAt(reader.sectionCount()) == nullptr, "one section too many");
  require(reader.aligned64(), "an open container is not aligned");
}

void lookAtMetadata(const kiv::ZEMLoader& loader) {
  kiv::ZEMLoader::MetaEntryView entry;
  for (size_t i = 0; i < loader.metaCount(); ++i) {
    require(loader.metaAt(i, entry), "a metadata entry is missing");
    const char* key = entry.key.c_str();
    uint32_t u32 = 0;
    int32_t i32 = 0;
    float f32 = 0;
    uint64_t u64 = 0;
    uint64_t count = 0;
    std::string text;
    const uint32_t* array = nullptr;
    const bool found = loader.getMetaU32(key, u32) || loader.getMetaI32(key, i32) ||
                       loader.getMetaF32(key, f32) || loader.getMetaU64(key, u64) ||
                       loader.getMetaStr(key, text) || loader.getMetaU32Array(key, array, count);
    // A key with a NUL byte in it cannot be asked for.
    require(found || entry.key.find('\0') != std::string::npos, "a metadata key is not found");
    touch(array, count * sizeof(uint32_t));
  }
  require(!loader.metaAt(loader.metaCount(), entry), "one metadata entry too many");
}

void lookAtTensors(const kiv::ZEMLoader& loader) {
  const kiv::ZEM2Reader& reader = loader.reader();
  for (size_t i = 0; i < loader.tensorCount(); ++i) {
    const kiv::TensorView& view = loader.tensorView(i);
    require(view.ndim <= 4 && view.name.size() <= 64, "a view beyond its limits");
    const kiv::TensorView* found = loader.findTensor(view.name);
    require(found == nullptr || found->name == view.name, "another tensor than the one asked for");
    (void)reader.findTensor(view.name.c_str());
    (void)reader.tensorView(view.name.c_str());
    if (loader.holdsBytes(view, view.size)) touch(view.data, view.size);
    (void)kiv::dtypeBytes(view.dtype, view.shape[0]);
    touch(kiv::dtypeName(view.dtype));
  }
  require(reader.tensorView(loader.tensorCount()).ptr == nullptr, "one tensor too many");
}

void lookAt(const kiv::ZEMLoader& loader) {
  lookAtSections(loader.reader());
  lookAtMetadata(loader);
  lookAtTensors(loader);
  for (size_t i = 0; i < loader.reader().quantInfoCount(); ++i) {
    touch(&loader.reader().quantEntry(i), sizeof(kiv::zem2::QuantEntry));
  }
  touch(loader.graph());
  touch(loader.chatTemplate());
}

bool openAndLook(const zemfuzz::Bytes& bytes, std::string& problem) {
  static zemfuzz::MemoryFile file;
  file.write(bytes);
  kiv::ZEMLoader loader;
  const kiv::Status status = loader.open(file.path());
  require(status.ok() == loader.valid(), "open() and valid() disagree");
  require(status.ok() == status.message().empty(), "a status and its message disagree");
  problem = status.message();
  // Without a tokenizer the container underneath is open all the same.
  if (status.ok()) lookAt(loader);
  return status.ok();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zemfuzz::Bytes bytes(data, data + size);
  std::string problem;
  if (openAndLook(bytes, problem) || problem != "ZEM2: CRC mismatch") return 0;
  zemtest::reseal(bytes);
  openAndLook(bytes, problem);
  require(problem != "ZEM2: CRC mismatch", "a mended checksum does not fit");
  return 0;
}
