// SPDX-License-Identifier: Apache-2.0
// The functions of an engine, but for replies.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "engine/text/chat_format.h"
#include "libzem/arguments.h"
#include "libzem/open_engine.h"
#include "libzem/records.h"

namespace zem::boundary {
namespace {

constexpr size_t kDefaultCacheBytes = size_t{1} << 30;

Outcome wrongOption(const char* field, uint64_t found, const char* needed) {
  return failure(ZEM_ERROR_ARGUMENT, std::string("zem_engine_options.") + field + ": found " +
                                         std::to_string(found) + ", needed " + needed);
}

Outcome readOptions(const zem_engine_options* given, EngineOptions& out) {
  zem_engine_options options{};
  if (given != nullptr) {
    if (Outcome outcome = readRecord(given, options); !outcome.ok()) return outcome;
  }
  constexpr uint64_t kMost = UINT64_C(1) << 20;
  if (options.threads > 4096) return wrongOption("threads", options.threads, "0 to 4096");
  if (options.cache_numbers > ZEM_CACHE_FLOAT) {
    return wrongOption("cache_numbers", options.cache_numbers, "ZEM_CACHE_HALF or ZEM_CACHE_FLOAT");
  }
  if (options.math > ZEM_MATH_FAST) {
    return wrongOption("math", options.math, "ZEM_MATH_EXACT or ZEM_MATH_FAST");
  }
  if (options.sequences > kMost) return wrongOption("sequences", options.sequences, "0 to 2^20");
  if (options.waiting > kMost && options.waiting != ZEM_NONE) {
    return wrongOption("waiting", options.waiting, "0 to 2^20, or ZEM_NONE");
  }
  if (options.batch_tokens > kMost) {
    return wrongOption("batch_tokens", options.batch_tokens, "0 to 2^20");
  }
  out.threads = options.threads;
  out.cacheNumbers =
      options.cache_numbers == ZEM_CACHE_FLOAT ? CacheNumbers::Float : CacheNumbers::Half;
  out.math = options.math == ZEM_MATH_FAST ? Math::Fast : Math::Exact;
  if (options.sequences != 0) out.sequences = options.sequences;
  if (options.waiting != 0) out.waiting = options.waiting == ZEM_NONE ? 0 : options.waiting;
  out.context = options.context;
  out.batchTokens = options.batch_tokens;
  out.memoryBytes = options.memory_bytes;
  out.cacheBytes = options.cache_bytes == 0 ? kDefaultCacheBytes : options.cache_bytes;
  if (options.cache_bytes == ZEM_NONE) out.cacheBytes = 0;
  if (options.chat_format != nullptr) out.chatFormat = options.chat_format;
  return {};
}

zem_description descriptionOf(const OpenEngine& open) {
  const Engine& engine = *open.engine;
  const ModelFacts& model = engine.model();
  zem_description out{};
  out.layers = static_cast<uint32_t>(model.layers);
  out.width = static_cast<uint32_t>(model.width);
  out.vocabulary = engine.vocabulary().size();
  out.parameters = model.parameters;
  out.weight_bytes = model.weightBytes;
  out.trained = model.context;
  out.context = engine.context();
  out.state_bytes = model.stateBytes;
  out.position_bytes = model.positionBytes;
  out.name = model.name.c_str();
  out.tokenizer = engine.vocabulary().isExact() ? "exact" : "plain";
  out.chat_format = open.chatFormat.c_str();
  return out;
}

zem_statistics statisticsOf(const OpenEngine& open) {
  const Engine::Load load = open.engine->load();
  const Totals totals = open.ledger->totals();
  zem_statistics out{};
  out.running = load.running;
  out.waiting = load.waiting;
  out.kept_states = load.keptStates;
  out.kept_bytes = load.keptBytes;
  out.requests = totals.requests;
  out.prompt_tokens = totals.promptTokens;
  out.reused_tokens = totals.reusedTokens;
  out.generated_tokens = totals.generatedTokens;
  return out;
}

// Why the model at `path` does not open, with the path in front. The reader of containers does not
// tell a file that cannot be opened from one that is damaged.
Outcome notOpened(const char* path, const kiv::Status& status) {
  errno = 0;
  const std::ifstream file(std::filesystem::path(std::u8string(path, path + std::strlen(path))),
                           std::ios::binary);
  const int reason = errno;
  Outcome outcome = ofFile(status);
  if (!file) outcome = failure(ZEM_ERROR_FILE, std::generic_category().message(reason));
  outcome.message.insert(0, std::string(path) + ": ");
  return outcome;
}

Outcome openEngine(const char* path, const zem_engine_options* given, zem_engine* out) {
  if (path == nullptr) return isNull("path");
  if (out == nullptr) return isNull("engine");
  EngineOptions options;
  if (Outcome outcome = readOptions(given, options); !outcome.ok()) return outcome;
  if (!options.chatFormat.empty() && text::chatFormatByName(options.chatFormat) == nullptr) {
    return failure(ZEM_ERROR_ARGUMENT, "zem_engine_options.chat_format: found \"" +
                                           options.chatFormat + "\", needed one of " +
                                           text::chatFormatNames());
  }
  auto open = std::make_shared<OpenEngine>();
  const kiv::Status status = Engine::open(path, options, open->engine);
  if (!status.ok()) return notOpened(path, status);
  if (const text::ChatFormat* format = open->engine->chatFormat()) open->chatFormat = format->name;
  watchForks();
  *out = engines().insert(std::move(open));
  return {};
}

Outcome takeEngine(OpenEngine& open, zem_engine handle, std::unique_ptr<Engine>& out) {
  if (open.engine == nullptr) return noEngine();
  if (const size_t count = open.ledger->underWay(); count != 0) {
    return failure(ZEM_ERROR_BUSY, std::to_string(count) +
                                       " requests are under way; wait for their ends, or call "
                                       "zem_engine_cancel_all");
  }
  engines().remove(handle);
  out = std::move(open.engine);
  return {};
}

// The engine goes outside of the gate: a callback that still runs may wait there.
Outcome closeEngine(zem_engine handle) {
  if (Outcome outcome = outsideCallbacks(); !outcome.ok()) return outcome;
  const std::shared_ptr<OpenEngine> open = engines().find(handle);
  if (open == nullptr) return noEngine();
  std::unique_ptr<Engine> engine;
  return open->gate.alone([&] { return takeEngine(*open, handle, engine); });
}

Outcome tokenize(const Engine& engine, std::string_view text, uint32_t flags,
                 std::vector<uint32_t>& ids) {
  if (Outcome outcome = readFlags("flags", flags, ZEM_SPECIAL_TOKENS); !outcome.ok()) {
    return outcome;
  }
  const auto added =
      flags == ZEM_SPECIAL_TOKENS ? text::AddedTokens::Recognised : text::AddedTokens::AsText;
  return ofRequest(engine.vocabulary().encode(text, added, ids));
}

Outcome detokenize(const Vocabulary& vocabulary, std::span<const uint32_t> ids, uint32_t flags,
                   std::string& text) {
  if (Outcome outcome = readFlags("flags", flags, ZEM_SPECIAL_TOKENS); !outcome.ok()) {
    return outcome;
  }
  for (size_t i = 0; i < ids.size(); ++i) {
    if (ids[i] >= vocabulary.size()) {
      return failure(ZEM_ERROR_ARGUMENT, "ids[" + std::to_string(i) + "]: found " +
                                             std::to_string(ids[i]) + ", needed below " +
                                             std::to_string(vocabulary.size()));
    }
    text +=
        flags == ZEM_SPECIAL_TOKENS ? vocabulary.spellingOf(ids[i]) : vocabulary.bytesOf(ids[i]);
  }
  return {};
}

}  // namespace
}  // namespace zem::boundary

using namespace zem::boundary;  // NOLINT(google-build-using-namespace)

extern "C" {

zem_code zem_engine_open(const char* path, const zem_engine_options* options,
                         zem_engine* engine) noexcept {
  return guarded(__func__, [&] { return openEngine(path, options, engine); });
}

zem_code zem_engine_close(zem_engine engine) noexcept {
  return guarded(__func__, [&] { return closeEngine(engine); });
}

zem_code zem_engine_cancel_all(zem_engine engine) noexcept {
  return withEngine(__func__, engine, [](const EngineUse& use) {
    Outcome outcome = outsideCallbacks();
    if (outcome.ok()) use.open().ledger->cancelAll();
    return outcome;
  });
}

zem_code zem_engine_describe(zem_engine engine, zem_description* out) noexcept {
  return withEngine(__func__, engine, [&](const EngineUse& use) {
    Outcome outcome = checkRecordSize(out);
    if (outcome.ok()) writeRecord(descriptionOf(use.open()), out);
    return outcome;
  });
}

zem_code zem_engine_statistics(zem_engine engine, zem_statistics* out) noexcept {
  return withEngine(__func__, engine, [&](const EngineUse& use) {
    Outcome outcome = checkRecordSize(out);
    if (outcome.ok()) writeRecord(statisticsOf(use.open()), out);
    return outcome;
  });
}

zem_code zem_engine_tokenize(zem_engine engine, const char* text, size_t size, uint32_t flags,
                             uint32_t* ids, size_t capacity, size_t* length) noexcept {
  return withEngine(__func__, engine, [&](const EngineUse& use) {
    std::string_view given;
    std::vector<uint32_t> found;
    Outcome outcome = readText("text", text, size, given);
    if (outcome.ok()) outcome = tokenize(use.engine(), given, flags, found);
    return outcome.ok() ? writeItems(found, ids, capacity, length) : outcome;
  });
}

zem_code zem_engine_detokenize(zem_engine engine, const uint32_t* ids, size_t count, uint32_t flags,
                               char* text, size_t capacity, size_t* length) noexcept {
  return withEngine(__func__, engine, [&](const EngineUse& use) {
    std::span<const uint32_t> given;
    std::string found;
    Outcome outcome = readIds("ids", ids, count, given);
    if (outcome.ok()) outcome = detokenize(use.engine().vocabulary(), given, flags, found);
    return outcome.ok() ? writeItems(found, text, capacity, length) : outcome;
  });
}

zem_code zem_engine_save(zem_engine engine, const uint32_t* ids, size_t count, const char* path,
                         size_t* saved) noexcept {
  return withEngine(__func__, engine, [&](const EngineUse& use) {
    std::span<const uint32_t> given;
    Outcome outcome = outsideCallbacks();
    if (outcome.ok() && path == nullptr) outcome = isNull("path");
    if (outcome.ok()) outcome = readIds("ids", ids, count, given);
    if (!outcome.ok()) return outcome;
    size_t length = 0;
    outcome = ofRequest(use.engine().save({given.begin(), given.end()}, path, length));
    if (outcome.ok() && saved != nullptr) *saved = length;
    return outcome;
  });
}

zem_code zem_engine_restore(zem_engine engine, const char* path, uint32_t* ids, size_t capacity,
                            size_t* length) noexcept {
  return withEngine(__func__, engine, [&](const EngineUse& use) {
    std::vector<uint32_t> conversation;
    Outcome outcome = outsideCallbacks();
    if (outcome.ok() && path == nullptr) outcome = isNull("path");
    if (outcome.ok() && length == nullptr) outcome = isNull("length");
    if (outcome.ok()) outcome = ofFile(use.engine().restore(path, conversation));
    return outcome.ok() ? writeItems(conversation, ids, capacity, length) : outcome;
  });
}

}  // extern "C"
