// SPDX-License-Identifier: Apache-2.0
#include "decoder/decoder.h"

#include <array>
#include <filesystem>

#include "compat/dlfcn.h"
#include "compat/files.h"
#include "console/terminal.h"
#include "host/modules.h"

namespace zemtool {
namespace {

constexpr char kModuleName[] = "zem_decoder";

// Never unloaded: the decoder's threads outlive the last call.
struct Module {
  ZemDecoderOpenFn open;
  ZemDecoderVocabularyFn vocabulary;
  ZemDecoderStepFn step;
  ZemDecoderCloseFn close;
};

template <typename Function>
Function find(void* library, const char* name) {
  void* found = dlsym(library, name);
  if (found == nullptr) throw Failure(std::string(kModuleName) + " has no " + name);
  return reinterpret_cast<Function>(found);
}

Module loadModule() {
  const auto path = moduleFile(kModuleName);
  void* library = dlopen(compat::nameOf(path).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* reason = dlerror();
    throw Failure("cannot load the decoder: " +
                  (reason == nullptr ? compat::nameOf(path) : std::string(reason)));
  }
  return {find<ZemDecoderOpenFn>(library, ZEM_DECODER_OPEN),
          find<ZemDecoderVocabularyFn>(library, ZEM_DECODER_VOCABULARY),
          find<ZemDecoderStepFn>(library, ZEM_DECODER_STEP),
          find<ZemDecoderCloseFn>(library, ZEM_DECODER_CLOSE)};
}

const Module& module() {
  static const Module loaded = loadModule();
  return loaded;
}

}  // namespace

Decoder::Decoder(const std::string& path, size_t positions) : decoder_(nullptr, module().close) {
  std::array<char, 512> error{};
  decoder_.reset(module().open(path.c_str(), positions, error.data(), error.size()));
  if (decoder_ == nullptr) throw Failure("cannot compute with " + path + ": " + error.data());
  logits_.resize(vocabulary());
}

size_t Decoder::vocabulary() const { return module().vocabulary(decoder_.get()); }

const std::vector<float>& Decoder::step(int32_t token) {
  if (module().step(decoder_.get(), token, logits_.data()) != 0) {
    throw Failure("the decoder stopped: out of memory, or a token that the model lacks");
  }
  return logits_;
}

}  // namespace zemtool
