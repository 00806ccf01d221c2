// SPDX-License-Identifier: Apache-2.0
// The built module, loaded as a host loads it.
#pragma once

#include <stdexcept>
#include <string>

#include "compat/dlfcn.h"
#include "support/platform.h"
#include "zem/plugin.h"

namespace zemtest {

inline const char* const kModulePath = ZEM_TEST_BIN "/runtime_qwen35_vulkan" ZEM_MODULE_SUFFIX;

class PluginModule {
 public:
  PluginModule() : library_(dlopen(kModulePath, RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) throw std::runtime_error(dlerror());
  }
  ~PluginModule() { dlclose(library_); }
  PluginModule(const PluginModule&) = delete;
  PluginModule& operator=(const PluginModule&) = delete;

  template <typename Function>
  Function find(const char* name) const {
    return reinterpret_cast<Function>(dlsym(library_, name));
  }

  const ZEMPluginDescriptor* init(const ZEMHostAPI* host) const {
    return find<ZEMPluginInitFn>("zem_plugin_init")(host);
  }
  const ZEMRuntimeDescriptor* runtimes(uint32_t* count) const {
    return find<ZEMPluginRuntimesFn>("zem_plugin_runtimes")(count);
  }
  const ZEMRuntimeDescriptorV2* runtimesV2(uint32_t* count) const {
    return find<ZEMPluginRuntimesV2Fn>("zem_plugin_runtimes_v2")(count);
  }
  const ZEMRuntimeDescriptorV2S* runtimesV2S(uint32_t* count) const {
    return find<ZEMPluginRuntimesV2SFn>("zem_plugin_runtimes_v2s")(count);
  }

 private:
  void* library_;
};

// One module for the whole test program.
inline const PluginModule& pluginModule() {
  static const PluginModule module;
  return module;
}

}  // namespace zemtest
