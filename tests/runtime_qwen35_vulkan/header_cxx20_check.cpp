// SPDX-License-Identifier: Apache-2.0
// The plug-in header alone, as C++20: compiling is the test.
#include "zem/plugin.h"

#include <type_traits>

static_assert(std::is_standard_layout_v<ZEMSessionOptions>);
static_assert(std::is_trivially_copyable_v<ZEMRuntimeDescriptorV2>);
// The exports say more than the types that hosts look them up by: they cannot throw.
static_assert(std::is_convertible_v<decltype(&zem_plugin_runtimes_v2), ZEMPluginRuntimesV2Fn>);
static_assert(noexcept(zem_plugin_runtimes_v2(nullptr)));
