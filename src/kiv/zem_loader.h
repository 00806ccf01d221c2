// SPDX-License-Identifier: Apache-2.0
/// \file
/// What the rest of the system opens: a container with its tensors as views,
/// its tokenizer tables and its summary.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kiv/status.h"
#include "kiv/tensor.h"
#include "kiv/tokenizer.h"
#include "kiv/zem2_reader.h"

namespace kiv {

/// From the container's header, as written; nothing here is checked against the tensors.
struct ModelInfo {
  uint32_t modelType = 0;   ///< the model family's code
  uint64_t hiddenSize = 0;  ///< width of the model
  uint32_t layerCount = 0;  ///< decoder blocks
  uint32_t vocabSize = 0;   ///< tokens
  size_t tensorCount = 0;   ///< entries of the tensor index
};

/// Owns the mapping: every TensorView points into it and dies with close().
/// One thread opens and closes; lookups in between may run on many.
class ZEMLoader {
 public:
  /// A copy of a metadata entry.
  using MetaEntryView = ZEM2Reader::MetaEntryView;

  ZEMLoader() = default;
  ~ZEMLoader() { close(); }
  ZEMLoader(const ZEMLoader&) = delete;
  ZEMLoader& operator=(const ZEMLoader&) = delete;

  /// The reader's failures pass through; a container without a readable
  /// tokenizer fails with "ZEMLoader: no tokenizer section". When memory runs out
  /// (std::bad_alloc), the loader is closed.
  Status open(const char* path);
  /// Unmaps the file; may be repeated.
  void close();
  bool valid() const { return valid_; }  ///< open

  const ModelInfo& modelInfo() const { return info_; }          ///< of the open container
  size_t tensorCount() const { return views_.size(); }          ///< tensors
  const TensorView* findTensor(const std::string& name) const;  ///< null: no such tensor
  /// In the order of the index, which is that of the names. `i` must be below tensorCount().
  const TensorView& tensorView(size_t i) const { return views_[i]; }

  /// The container underneath, for sections and for weightBase()/weightSize().
  const ZEM2Reader& reader() const { return reader_; }

  /// True when the `bytes` bytes from `view.data` lie inside WeightData. Ask
  /// before reading: a container opens whatever its tensor offsets say.
  bool holdsBytes(const TensorView& view, uint64_t bytes) const;

  const TokenizerData& tokenizer() const { return tokenizer_; }  ///< of the Tokenizer section
  const std::string& chatTemplate() const {
    return chatTemplate_;
  }                                                    ///< empty: the container has none
  const std::string& graph() const { return graph_; }  ///< bytes of the Graph section, or nothing
  size_t graphSize() const { return graph_.size(); }   ///< bytes

  /// Metadata, as ZEM2Reader has it.
  ///@{
  size_t metaCount() const { return reader_.metaCount(); }
  bool metaAt(size_t i, MetaEntryView& out) const { return reader_.metaAt(i, out); }
  bool getMetaU32(const char* key, uint32_t& out) const { return reader_.getMetaU32(key, out); }
  bool getMetaI32(const char* key, int32_t& out) const { return reader_.getMetaI32(key, out); }
  bool getMetaF32(const char* key, float& out) const { return reader_.getMetaF32(key, out); }
  bool getMetaU64(const char* key, uint64_t& out) const { return reader_.getMetaU64(key, out); }
  bool getMetaStr(const char* key, std::string& out) const { return reader_.getMetaStr(key, out); }
  bool getMetaU32Array(const char* key, const uint32_t*& data, uint64_t& count) const {
    return reader_.getMetaU32Array(key, data, count);
  }
  ///@}

 private:
  Status openClosed(const char* path);

  ZEM2Reader reader_;
  ModelInfo info_;
  std::vector<TensorView> views_;
  TokenizerData tokenizer_;
  std::string chatTemplate_;
  std::string graph_;
  bool valid_ = false;
};

}  // namespace kiv
