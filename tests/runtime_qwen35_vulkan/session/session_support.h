// SPDX-License-Identifier: Apache-2.0
// Sessions on small models, for tests.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/plugin_module.h"
#include "session/session.h"
#include "support/temp_file.h"
#include "support/tiny_model.h"
#include "zem/plugin.h"

namespace zemtest {

inline const std::string kGpuLine = "[qwen35-vulkan] GPU path unavailable - running CPU-only\n";
inline const std::string kGpuReason = "[qwen35-vulkan] GPU not used: ";

// Whether `text` is what may follow kGpuLine: nothing, on a machine without a device, or a line
// with the reason.
inline bool isGpuReason(const std::string& text) {
  return text.empty() || (text.starts_with(kGpuReason) && text.find('\n') == text.size() - 1);
}

// Whether a session that stays on the CPU says so, and nothing but the reason behind it.
inline bool saysGpuUnavailable(const std::string& text) {
  return text.starts_with(kGpuLine) && isGpuReason(text.substr(kGpuLine.size()));
}

// A model file for the length of a test.
class ModelFile {
 public:
  explicit ModelFile(const TinyModel& model) : file_(model.build()) {}
  explicit ModelFile(const Bytes& bytes) : file_(bytes) {}
  const char* path() const { return file_.path(); }

 private:
  TempFile file_;
};

// These models are too small to share out: waiting for each other at the end of
// every product would cost the threads more than the products.
inline const bool kOneThread = (omp_set_num_threads(1), true);

// Full attention in every layer: the cheapest model to run.
inline TinyModelOptions cheapOptions() {
  TinyModelOptions options;
  options.linearLayers.clear();
  return options;
}

// The function tables of the built module, or of the same code linked into the
// test, where a session's members can be seen.
struct Tables {
  const ZEMRuntimeDescriptorV2* v2;
  const ZEMRuntimeDescriptorV2S* v2s;
};
inline Tables builtModule() {
  return {pluginModule().runtimesV2(nullptr), pluginModule().runtimesV2S(nullptr)};
}
inline Tables linked() {
  return {zem_plugin_runtimes_v2(nullptr), zem_plugin_runtimes_v2s(nullptr)};
}

struct TextResult {
  int rc;
  std::string text;
};
struct StreamResult {
  int rc;
  std::vector<std::string> pieces;

  std::string text() const {
    std::string all;
    for (const std::string& piece : pieces) all += piece;
    return all;
  }
};

// What `run` writes to the standard error stream.
template <typename Run>
std::string stderrOf(Run&& run) {
  testing::internal::CaptureStderr();
  run();
  return testing::internal::GetCapturedStderr();
}

class Session {
 public:
  explicit Session(const ModelFile& model, const char* hint = nullptr,
                   Tables tables = builtModule())
      : tables_(tables) {
    char err[256] = "";
    createOutput_ = stderrOf(
        [&] { EXPECT_EQ(api().create(model.path(), hint, &handle_, err, sizeof err), 0) << err; });
    if (handle_ == nullptr) throw std::runtime_error(err);
  }
  ~Session() { api().destroy(handle_); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const ZEMRuntimeDescriptorV2& api() const { return *tables_.v2; }
  ZEMRuntimeHandle* handle() const { return handle_; }
  // Of a session made with linked() tables.
  qwen35rt::Qwen35Session& members() const { return *qwen35rt::sessionOf(handle_); }
  const std::string& createOutput() const { return createOutput_; }

  TextResult generate(const char* prompt) const {
    return text([&](char* out, size_t size) { return api().generate(handle_, prompt, out, size); });
  }
  TextResult generateEx(const char* prompt, const ZEMSessionOptions* options) const {
    return text([&](char* out, size_t size) {
      return api().generate_ex(handle_, prompt, options, out, size);
    });
  }
  TextResult chat(const char* userText) const {
    return text(
        [&](char* out, size_t size) { return api().chat_turn(handle_, userText, out, size); });
  }
  StreamResult stream(const char* userText, volatile int* cancel = nullptr) const {
    StreamResult result;
    const ZEMChatTokenFn collect = [](const char* piece, uint32_t length, void* user) {
      EXPECT_EQ(piece[length], '\0');
      static_cast<StreamResult*>(user)->pieces.emplace_back(piece, length);
    };
    result.rc = streamTo(userText, collect, &result, cancel);
    return result;
  }
  int streamTo(const char* userText, ZEMChatTokenFn cb, void* user, volatile int* cancel) const {
    return tables_.v2s->chat_turn_stream(handle_, userText, cb, user, cancel);
  }
  int configure(const ZEMSessionOptions& options) const {
    return api().configure(handle_, &options);
  }
  // The position at which replies end, to keep them short.
  void setContext(size_t positions) const {
    ZEMSessionOptions options = {};
    options.struct_size = sizeof options;
    options.temperature = -1.0F;
    options.ctx_len = static_cast<uint32_t>(positions);
    EXPECT_EQ(configure(options), 0);
  }
  int reset() const { return api().reset(handle_); }
  ZEMRuntimeStats stats() const {
    ZEMRuntimeStats stats = {};
    EXPECT_EQ(api().stats(handle_, &stats), 0);
    return stats;
  }

 private:
  template <typename Call>
  TextResult text(Call&& call) const {
    std::string out(1 << 16, '#');
    const int rc = call(out.data(), out.size());
    return {rc, out.c_str()};
  }

  Tables tables_;
  ZEMRuntimeHandle* handle_ = nullptr;
  std::string createOutput_;
};

// The ids of `text`, for a session made with linked() tables.
inline std::vector<int32_t> encode(const Session& session, const std::string& text) {
  std::vector<int32_t> ids;
  EXPECT_TRUE(session.members().tok->encode(text, ids, true).ok());
  return ids;
}

// The most tokens of a reply, unless a call asks for another number.
inline constexpr size_t kBudget = 96;

// Options that change nothing until a field is set.
inline ZEMSessionOptions keepAll() {
  ZEMSessionOptions options = {};
  options.struct_size = sizeof options;
  options.temperature = -1.0F;
  return options;
}

// Sets row `row` of the embedding, which is also the output head's row.
inline void setEmbeddingRow(TinyModel& model, size_t row, const std::vector<float>& values) {
  for (size_t i = 0; i < values.size(); ++i) {
    model.setFloat("token_embd.weight", row * values.size() + i, values[i]);
  }
}

// A model that never ends a reply: the rows of the two stop tokens are zero, and
// among a hundred others some logit is above zero.
inline TinyModel endlessModel(TinyModelOptions options = cheapOptions()) {
  TinyModel model(options);
  for (const size_t stop : {size_t{0}, size_t{2}}) {
    setEmbeddingRow(model, stop, std::vector<float>(options.width, 0.0F));
  }
  return model;
}

}  // namespace zemtest
