// SPDX-License-Identifier: Apache-2.0
/// \file
/// Replies of a model, many at once.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/request.h"
#include "engine/seconds_histogram.h"
#include "engine/text/chat_format.h"
#include "engine/vocabulary.h"
#include "kiv/status.h"

namespace zem {

/// What keys and values of earlier positions are stored as.
enum class CacheNumbers : uint8_t {
  Half,   ///< half precision
  Float,  ///< single precision: twice the memory, and no rounding
};

/// How matrix products are computed. Either gives the same bits on every machine.
enum class Math : uint8_t {
  Exact,  ///< in single precision, as the plug-in does
  Fast,   ///< with activations of 14 bits and integer sums, where the weights' type allows
};

/// How an engine is set up. Zero means the default that is named.
struct EngineOptions {
  size_t threads = 0;                              ///< that compute; all processors
  CacheNumbers cacheNumbers = CacheNumbers::Half;  ///< of the key/value cache
  Math math = Math::Exact;                         ///< of the matrix products
  size_t sequences = 4;                            ///< requests that run at the same time
  size_t waiting = 64;                             ///< requests that may wait for a place
  size_t context = 0;                              ///< tokens of prompt and reply; the model's
  size_t batchTokens = 0;                          ///< that are computed together; 48
  size_t memoryBytes = 0;                          ///< for running requests; no limit
  size_t cacheBytes = size_t{1} << 30;             ///< for what later requests may reuse
  std::string chatFormat = {};                     ///< name of a revision; the model's template
};

/// The sizes of a model, and the memory that it takes.
struct ModelFacts {
  std::string name;          ///< of the file, without folders and ".zem"
  size_t layers = 0;         ///< that the model has
  size_t width = 0;          ///< floats of a token between layers
  uint64_t parameters = 0;   ///< elements of all tensors
  uint64_t weightBytes = 0;  ///< of all tensors, in the mapped file
  size_t context = 0;        ///< tokens that the model was made for; 0 where it is not stated
  size_t stateBytes = 0;     ///< that a conversation takes from its first token on
  size_t positionBytes = 0;  ///< that it takes for each token beside them
};

/// A request on its way. Copies stand for the same request.
class RequestHandle {
 public:
  RequestHandle() = default;
  /// Ends the request after the step that runs. Any thread; without effect once it has ended.
  void cancel() const {
    if (cancelled_ != nullptr) *cancelled_ = true;
  }

 private:
  friend class Engine;
  explicit RequestHandle(std::shared_ptr<std::atomic<bool>> cancelled)
      : cancelled_(std::move(cancelled)) {}

  std::shared_ptr<std::atomic<bool>> cancelled_;
};

/// A model with a thread that computes. The same request gives the same tokens, whatever else
/// runs, is reused, or how many threads there are. Every member may be called from any thread.
class Engine {
 public:
  /// Opens the container at `path`. Failures: those of the file, InvalidFormat for an unknown name
  /// of a chat format, and IOError when the system gives no threads.
  static kiv::Status open(const std::string& path, const EngineOptions& options,
                          std::unique_ptr<Engine>& out);
  /// Ends all requests as cancelled, and waits for their last calls.
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  /// Asks for a reply. Fails with InvalidFormat, and a message that says what is wrong, for a
  /// request that cannot be computed; with Unsupported while too many requests wait, or when the
  /// engine ends and a listener asks. Otherwise `listener` hears of the reply, maybe before this
  /// call returns; it lives until its last call.
  kiv::Status submit(Request request, std::shared_ptr<Listener> listener, RequestHandle& handle);

  /// Writes what is kept of a conversation to a file: the longest state whose tokens are the
  /// beginning of `conversation`. That is all but its last token after a reply that went on from
  /// it. `saved` becomes their number. Fails with InvalidFormat when nothing is kept, with IOError
  /// when the file cannot be written; an older file then stays as it was. Waits for the step that
  /// runs. session_file.h has the format.
  kiv::Status save(const std::vector<uint32_t>& conversation, const std::string& path,
                   size_t& saved);

  /// Keeps a saved state as if its conversation had just been here: a prompt that begins with
  /// `conversation`, which becomes its tokens, goes on from there. Fails with IOError for a file
  /// that cannot be read, with InvalidFormat for one that is damaged, that belongs to another
  /// model, or that is larger than EngineOptions::cacheBytes. Waits for the step that runs.
  kiv::Status restore(const std::string& path, std::vector<uint32_t>& conversation);

  const ModelFacts& model() const;       ///< what the container says
  const Vocabulary& vocabulary() const;  ///< of the model
  size_t context() const;                ///< tokens of prompt and reply together

  /// How the model's conversations are written: the revision that the options name, else the one
  /// that the container's metadata entry `chat.format` names, else the one of its template, else,
  /// in a container without a template, the first of the family. Null where name or template are
  /// none of the known revisions.
  const text::ChatFormat* chatFormat() const;
  /// What the publisher recommends: the container's values, else those of the model family.
  const SamplingOptions& defaultSampling(bool thinking) const;

  /// What is going on.
  struct Load {
    size_t running = 0;      ///< requests that compute
    size_t waiting = 0;      ///< requests that wait
    size_t keptStates = 0;   ///< kept for later requests
    size_t keptBytes = 0;    ///< of them
    uint64_t evictions = 0;  ///< states that were kept and had to give way, up to now
    SecondsHistogram steps;  ///< how long the model took for each batch, up to now
  };
  Load load() const;  ///< after the latest step

 private:
  struct Impl;
  explicit Engine(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace zem
