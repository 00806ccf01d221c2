// SPDX-License-Identifier: Apache-2.0
#include "host/plugin_host.h"

#include <array>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "compat/dlfcn.h"
#include "compat/environment.h"
#include "compat/files.h"
#include "console/terminal.h"
#include "console/text.h"
#include "host/model_file.h"
#include "host/modules.h"

namespace zemtool {
namespace {

constexpr const char* kPluginName = "runtime_qwen35_vulkan";
constexpr uint32_t kV2Version = 3;
// Room for 96 tokens of more than 10 KiB each.
constexpr size_t kTextBytes = size_t{1} << 20;

std::string absoluteName(const std::string& path) {
  return compat::nameOf(std::filesystem::absolute(compat::pathOf(path)));
}

// Call it right after dlopen() has failed.
std::string loadProblem(const std::string& path) {
  std::string reason = dlerror();
  while (!reason.empty() && (reason.back() == '\n' || reason.back() == '\r')) reason.pop_back();
  // Not every system names the file.
  return reason.find(path) != std::string::npos ? reason : path + ": " + reason;
}

class Library {
 public:
  explicit Library(const std::string& path)
      : path_(path),
        // A bare name would be searched for in the system's library folders.
        handle_(dlopen(absoluteName(path).c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {
    if (handle_ == nullptr) throw Failure("cannot load the plug-in: " + loadProblem(path));
  }

  template <typename Function>
  Function find(const char* name) const {
    void* symbol = dlsym(handle_, name);
    if (symbol == nullptr) refuse(std::string("it does not export ") + name);
    return reinterpret_cast<Function>(symbol);
  }

  // Searches the libraries that this one needs, too. Null when none has the symbol.
  template <typename Function>
  Function findIfThere(const char* name) const {
    return reinterpret_cast<Function>(dlsym(handle_, name));
  }

  [[noreturn]] void refuse(const std::string& reason) const {
    throw Failure(path_ + " is not a runtime plug-in for this host: " + reason);
  }

 private:
  std::string path_;
  void* handle_;
};

const ZEMRuntimeDescriptorV2S* streamingOf(const Library& library, const char* id) {
  uint32_t count = 0;
  const auto* table = library.find<ZEMPluginRuntimesV2SFn>("zem_plugin_runtimes_v2s")(&count);
  for (uint32_t i = 0; table != nullptr && i < count; ++i) {
    if (std::strcmp(table[i].id, id) == 0) return &table[i];
  }
  library.refuse(std::string("its runtime ") + id + " cannot stream");
}

[[noreturn]] void failToOpen(const std::string& model, const char* message) {
  std::string line = "cannot open the model " + model + ": " + message;
  const std::string reason = modelProblem(model);
  if (!reason.empty()) line += " (" + reason + ")";
  throw Failure(line);
}

}  // namespace

std::string findPlugin(const std::string& given) {
  if (!given.empty()) return given;
  std::string named = compat::environmentVariable("ZEM_PLUGIN").value_or("");
  if (!named.empty()) return named;
  const auto file = moduleFile(kPluginName);
  std::error_code error;
  if (std::filesystem::exists(file, error)) return compat::nameOf(file);
  throw Failure("no runtime plug-in: " + compat::nameOf(file) +
                " does not exist; name one with --plugin or ZEM_PLUGIN");
}

PluginHost::PluginHost(const std::string& path) {
  const Library library(path);
  plugin_ = library.find<ZEMPluginInitFn>("zem_plugin_init")(nullptr);
  if (plugin_ == nullptr) library.refuse("it has no descriptor");
  library.find<ZEMPluginRuntimesFn>("zem_plugin_runtimes");
  uint32_t count = 0;
  runtime_ = library.find<ZEMPluginRuntimesV2Fn>("zem_plugin_runtimes_v2")(&count);
  if (runtime_ == nullptr || count == 0) library.refuse("it offers no runtime");
  if (runtime_->abi_version != kV2Version || runtime_->struct_size < sizeof *runtime_) {
    library.refuse("its tables have version " + std::to_string(runtime_->abi_version) +
                   ", this host needs " + std::to_string(kV2Version));
  }
  streaming_ = streamingOf(library, runtime_->id);
  setThreads_ = library.findIfThere<void (*)(int)>("omp_set_num_threads");
}

void PluginHost::setThreads(int count) const {
  if (setThreads_ == nullptr) {
    throw Failure(
        "the plug-in's OpenMP library cannot be reached, so that one process has one number of "
        "threads; use a single number with -t, once for each");
  }
  setThreads_(count);
}

Session::Session(const PluginHost& host, const SessionOptions& options) : host_(host) {
  std::array<char, 512> message{};
  if (host.runtime().create(options.model.c_str(), createHint(options).c_str(), &handle_,
                            message.data(), message.size()) != 0) {
    failToOpen(options.model, message.data());
  }
}

Session::~Session() { host_.runtime().destroy(handle_); }

void Session::configure(const ZEMSessionOptions& settings) {
  if (host_.runtime().configure(handle_, &settings) != 0) {
    throw Failure("the runtime refused the settings");
  }
}

std::string Session::generate(const std::string& prompt, const ZEMSessionOptions& settings) {
  const auto text = std::make_unique_for_overwrite<char[]>(kTextBytes);
  if (host_.runtime().generate_ex(handle_, prompt.c_str(), &settings, text.get(), kTextBytes) !=
      0) {
    throw Failure(
        "the completion failed: unless the line above names the reason, the prompt does not fit "
        "the "
        "context, or the model's numbers are not finite");
  }
  const size_t length = std::strlen(text.get());
  if (length + 1 >= kTextBytes) {
    throw Failure("the completion does not fit " + formatBytes(kTextBytes) +
                  ": the model's vocabulary holds tokens beyond all measure");
  }
  return {text.get(), length};
}

void Session::chatTurn(const std::string& text, ZEMChatTokenFn piece, void* user,
                       volatile int* cancel) {
  if (host_.streaming().chat_turn_stream(handle_, text.c_str(), piece, user, cancel) != 0) {
    throw Failure(
        "the reply failed: unless the line above names the reason, the conversation does not fit "
        "the context (/clear starts a new one), or the model's numbers are not finite");
  }
}

ZEMBenchResult Session::bench(const ZEMBenchParams& params) {
  ZEMBenchResult result{};
  result.struct_size = sizeof result;
  if (host_.runtime().bench(handle_, &params, &result) != 0) {
    throw Failure("the benchmark failed: the model cannot process its prompt");
  }
  return result;
}

ZEMRuntimeStats Session::stats() {
  ZEMRuntimeStats stats{};
  stats.struct_size = sizeof stats;
  if (host_.runtime().stats(handle_, &stats) != 0) {
    throw Failure("the runtime has no statistics");
  }
  return stats;
}

void Session::reset() {
  if (host_.runtime().reset(handle_) != 0) throw Failure("the conversation could not be reset");
}

double tokensPerSecond(const ZEMRuntimeStats& stats) {
  if (!(stats.generation_ms > 0)) return 0;
  return 1000.0 * static_cast<double>(stats.tokens) / stats.generation_ms;
}

std::string describeStats(const ZEMRuntimeStats& stats) {
  return std::to_string(stats.tokens) + (stats.tokens == 1 ? " token in " : " tokens in ") +
         formatNumber(stats.generation_ms, 1) + " ms (prompt included), " +
         formatNumber(tokensPerSecond(stats), 1) + " tokens/s, last step " +
         formatNumber(stats.last_step_ms, 1) + " ms";
}

}  // namespace zemtool
