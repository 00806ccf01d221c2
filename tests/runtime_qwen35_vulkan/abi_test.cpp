// SPDX-License-Identifier: Apache-2.0
// The tables that the built module hands out.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <thread>
#include <vector>

#include "runtime_qwen35_vulkan/plugin_module.h"
#include "zem/plugin.h"

namespace {

using zemtest::pluginModule;

TEST(PluginDescriptorTest, NamesThePlugin) {
  const ZEMPluginDescriptor* plugin = pluginModule().init(nullptr);
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(plugin->abi_version, 1U);
  EXPECT_EQ(plugin->plugin_version, 1U);
  EXPECT_STREQ(plugin->name, "runtime-qwen35-vulkan");
  EXPECT_STREQ(plugin->description, "Qwen3.5 hybrid (GDN+attn) runtime: GPU gemv+head via Vulkan");
  EXPECT_EQ(plugin->commands, nullptr);
  EXPECT_EQ(plugin->command_count, 0U);
}

TEST(PluginDescriptorTest, TheHostsFunctionsAreNotCalled) {
  ZEMHostAPI host = {};
  host.abi_version = 99;
  host.log = [](int, const char*) { ADD_FAILURE() << "log called"; };
  host.alloc = [](size_t) -> void* {
    ADD_FAILURE() << "alloc called";
    return nullptr;
  };
  host.free = [](void*) { ADD_FAILURE() << "free called"; };
  EXPECT_EQ(pluginModule().init(&host), pluginModule().init(nullptr));
}

TEST(RuntimeTableTest, FirstGenerationHasItsValues) {
  uint32_t count = 77;
  const ZEMRuntimeDescriptor* table = pluginModule().runtimes(&count);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(table->abi_version, 1U);
  EXPECT_STREQ(table->id, "qwen35-vulkan");
  EXPECT_STREQ(table->name, "Qwen3.5 hybrid runtime, GPU gemv+head on Vulkan (mixed-v1)");
  EXPECT_EQ(table->capabilities, 0xC2U);
  EXPECT_NE(table->probe, nullptr);
  EXPECT_NE(table->create, nullptr);
  EXPECT_NE(table->destroy, nullptr);
  EXPECT_NE(table->generate, nullptr);
}

TEST(RuntimeTableTest, SecondGenerationHasItsValues) {
  uint32_t count = 77;
  const ZEMRuntimeDescriptorV2* table = pluginModule().runtimesV2(&count);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(table->abi_version, 3U);
  EXPECT_EQ(table->struct_size, 112U);
  EXPECT_STREQ(table->id, "qwen35-vulkan");
  EXPECT_STREQ(table->name, "Qwen3.5 hybrid runtime, GPU gemv+head on Vulkan (mixed-v1)");
  EXPECT_EQ(table->caps_v2, 0x0FU);
  EXPECT_NE(table->generate_ex, nullptr);
  EXPECT_NE(table->bench, nullptr);
  EXPECT_NE(table->configure, nullptr);
  EXPECT_NE(table->chat_turn, nullptr);
  EXPECT_NE(table->reset, nullptr);
  EXPECT_NE(table->stats, nullptr);
}

TEST(RuntimeTableTest, BothGenerationsShareTheirEntries) {
  const ZEMRuntimeDescriptor* first = pluginModule().runtimes(nullptr);
  const ZEMRuntimeDescriptorV2* second = pluginModule().runtimesV2(nullptr);
  EXPECT_EQ(first->probe, second->probe);
  EXPECT_EQ(first->create, second->create);
  EXPECT_EQ(first->destroy, second->destroy);
  EXPECT_EQ(first->generate, second->generate);
}

TEST(RuntimeTableTest, StreamingTableExtendsTheSecondGeneration) {
  uint32_t count = 77;
  const ZEMRuntimeDescriptorV2S* table = pluginModule().runtimesV2S(&count);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(table->abi_version, 1U);
  EXPECT_EQ(table->struct_size, 24U);
  EXPECT_STREQ(table->id, pluginModule().runtimesV2(nullptr)->id);
  EXPECT_NE(table->chat_turn_stream, nullptr);
}

TEST(RuntimeTableTest, ANullCountIsFine) {
  EXPECT_NE(pluginModule().runtimes(nullptr), nullptr);
  EXPECT_NE(pluginModule().runtimesV2(nullptr), nullptr);
  EXPECT_NE(pluginModule().runtimesV2S(nullptr), nullptr);
}

TEST(RuntimeTableTest, EveryCallFromEveryThreadGivesTheSameTables) {
  const auto* first = pluginModule().runtimes(nullptr);
  const auto* second = pluginModule().runtimesV2(nullptr);
  const auto* streaming = pluginModule().runtimesV2S(nullptr);
  std::array<bool, 4> same{};
  std::vector<std::thread> threads;
  threads.reserve(same.size());
  for (bool& result : same) {
    threads.emplace_back([&] {
      uint32_t count = 0;
      result = true;
      for (int i = 0; i < 100; ++i) {
        result = result && pluginModule().runtimesV2S(&count) == streaming && count == 1 &&
                 pluginModule().runtimes(nullptr) == first &&
                 pluginModule().runtimesV2(nullptr) == second;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(same, (std::array<bool, 4>{true, true, true, true}));
}

TEST(RuntimeTableTest, AReloadedModuleWorks) {
  for (int i = 0; i < 3; ++i) {
    const zemtest::PluginModule module;
    EXPECT_STREQ(module.runtimesV2(nullptr)->id, "qwen35-vulkan");
  }
}

}  // namespace
