// SPDX-License-Identifier: Apache-2.0
/// \file
/// Writes a container file in one pass over the weights: tensors are declared
/// first, then streamed in name order, so that memory stays bounded whatever
/// the model's size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kiv/status.h"
#include "kiv/tensor.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2.h"

namespace kiv {

/// Values of the container header that the tensors do not determine.
struct ZEM2ModelHeader {
  uint32_t modelType = 0;   ///< the model family's code
  uint64_t hiddenSize = 0;  ///< width of the model
  uint32_t layerCount = 0;  ///< decoder blocks
  uint32_t vocabSize = 0;   ///< tokens
};

/// Use: declare (set*, add*), begin(), then for every tensor of order() its
/// bytes through write(), then finish(). A writer writes one file. One thread.
///
/// The file appears under its name only when it is whole: it is written beside
/// it as "<path>.partial-<pid>-<n>" and renamed by finish(). Without a finish()
/// that succeeded, no file is left behind. An existing file of that name stays
/// as it was until the rename replaces it; a folder or a device is refused.
///
/// Sections come in the order Meta, Tokenizer and Graph where they were set,
/// TensorIndex, QuantInfo, those of addSection(), WeightData. Sections and
/// tensors start at multiples of 64 bytes. The same calls give the same bytes.
///
/// Declaration mistakes (a name used twice, empty, longer than 64 bytes or with
/// a NUL, more than four extents, an extent of 0, a type without a layout, an
/// alias of nothing, more than 16 sections) fail in begin() with InvalidFormat
/// and name the tensor; so do calls out of order and bytes that are too many or
/// too few. Failures of the disk are IOError and name the file. After a failure
/// the partial file is gone and every further call returns that failure.
class ZEM2Writer {
 public:
  ZEM2Writer();
  ~ZEM2Writer();
  ZEM2Writer(const ZEM2Writer&) = delete;
  ZEM2Writer& operator=(const ZEM2Writer&) = delete;

  /// Values for the header; zeros without this call.
  void setModel(const ZEM2ModelHeader& model);
  /// ZEMLoader does not open a container without a tokenizer, ZEM2Reader does.
  void setTokenizer(const TokenizerData& tokenizer);
  /// The Graph section, as it stands.
  void setGraph(std::string bytes);
  /// A further section (Asset, Signature, ...). Types that the other calls write
  /// are refused: a reader would never see a second one.
  void addSection(zem2::SectionType type, std::string bytes);

  /// Metadata entries, kept in the order of the calls. Keys of up to 65535 bytes.
  ///@{
  void addMetaU32(const std::string& key, uint32_t value);
  void addMetaI32(const std::string& key, int32_t value);
  void addMetaF32(const std::string& key, float value);
  void addMetaU64(const std::string& key, uint64_t value);
  void addMetaStr(const std::string& key, const std::string& value);
  void addMetaU32Array(const std::string& key, const std::vector<uint32_t>& value);
  ///@}

  /// Declares a tensor; shape[0] is the innermost extent. Its byte size follows
  /// from type and shape, row by row (each row starts on a block boundary).
  void addTensor(const std::string& name, DType type, std::vector<uint64_t> shape);
  /// Declares `name` as a second name for the bytes, type and shape of `target`,
  /// a tensor (not an alias) that may be declared later. Nothing is streamed for it.
  void addAlias(const std::string& name, std::string target);

  /// Creates the partial file and writes everything that precedes the weights.
  Status begin(const std::string& path);
  /// The tensors to stream, by name, in the order in which write() expects them.
  /// Empty before begin().
  const std::vector<std::string>& order() const;
  /// Bytes of the tensor `name`, 0 for an unknown name or an alias.
  uint64_t tensorBytes(const std::string& name) const;
  /// Bytes of all tensors to stream, for progress; 0 before begin().
  uint64_t totalBytes() const;

  /// Appends bytes to the current tensor; a tensor may come in several pieces,
  /// and the next one begins when its declared size is reached.
  Status write(const void* bytes, size_t count);
  /// Checks that every tensor is whole, writes header and checksum, syncs, renames.
  Status finish();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kiv
