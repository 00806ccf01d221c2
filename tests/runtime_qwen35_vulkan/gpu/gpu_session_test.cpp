// SPDX-License-Identifier: Apache-2.0
// Sessions with the GPU path on the machine's device: the same text as on the
// CPU, plans honoured layer by layer, and every way in which attaching can fail.
//
// The models are the tool's demo models. The device may well be a software one,
// on which a token takes a second, so contexts are short.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "runtime_qwen35_vulkan/session/session_support.h"
#include "support/failing_vulkan.h"
#include "support/needs_gpu.h"
#include "support/scoped_env.h"
#include "support/subprocess.h"
#include "support/temp_file.h"
#include "support/whole_file.h"

namespace {

using zemtest::Bytes;
using zemtest::FailingCall;
using zemtest::kGpuLine;
using zemtest::linked;
using zemtest::ModelFile;
using zemtest::saysGpuUnavailable;
using zemtest::ScopedEnv;
using zemtest::Session;
using zemtest::TextResult;

constexpr const char* kPrompt = "Hello there";
constexpr const char* kNoGpu = "ZEM_NO_VULKAN";

// The demo model whose matrices have this type; made once.
const ModelFile& demoModel(const std::string& type) {
  static std::map<std::string, std::unique_ptr<ModelFile>> models;
  std::unique_ptr<ModelFile>& model = models[type];
  if (model == nullptr) {
    const zemtest::TempFile file;
    const auto made = zemtest::runProcess(
        {ZEM_TEST_BIN "/zem", "make-demo", file.string(), "--type", type}, {}, {});
    EXPECT_EQ(made.status, 0) << made.err;
    model = std::make_unique<ModelFile>(zemtest::wholeFile<Bytes>(file.string()));
  }
  return *model;
}

bool machineHasADevice() {
  std::vector<kiv::vulkan::ListedDevice> devices;
  return kiv::vulkan::listDevices(devices).ok();
}

class GpuSession : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!machineHasADevice()) ZEM_SKIP_WITHOUT_GPU("no Vulkan device on this machine");
  }

  // A session whose conversations end after `positions`.
  static std::unique_ptr<Session> open(const std::string& type, size_t positions,
                                       const std::string& plan = "") {
    const std::string hint = "test;ctx=" + std::to_string(positions) + ";plan=" + plan;
    return std::make_unique<Session>(demoModel(type), hint.c_str(), linked());
  }
  static std::unique_ptr<Session> openOnCpu(const std::string& type, size_t positions) {
    const ScopedEnv env(kNoGpu, "1");
    auto session = open(type, positions);
    EXPECT_EQ(session->createOutput(), kGpuLine);
    EXPECT_FALSE(session->members().gpuUp);
    return session;
  }
  static void expectAttached(const Session& session) {
    EXPECT_TRUE(session.members().gpuUp);
    EXPECT_NE(session.members().model.gpuGemvRow, nullptr);
    EXPECT_EQ(session.members().model.gpuCtx, session.members().gv.get());
  }
  static void expectOnCpu(const Session& session) {
    EXPECT_PRED1(saysGpuUnavailable, session.createOutput());
    const qwen35rt::Qwen35Session& s = session.members();
    EXPECT_FALSE(s.gpuUp);
    EXPECT_EQ(s.gpu, nullptr);
    EXPECT_EQ(s.gv, nullptr);
    EXPECT_EQ(s.model.gpuCtx, nullptr);
    EXPECT_EQ(s.model.gpuGemvRow, nullptr);
    EXPECT_TRUE(s.modelReady);
  }
  static size_t promptTokens(const Session& session) {
    std::vector<int32_t> ids;
    EXPECT_TRUE(session.members().tok->encode(kPrompt, ids, true).ok());
    return ids.size();
  }
};

std::string textOf(const TextResult& result) {
  EXPECT_EQ(result.rc, 0);
  return result.text;
}

// ---- What it computes ----

class GpuSessionOfType : public GpuSession, public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Types, GpuSessionOfType,
                         ::testing::Values("q4_k", "q5_k", "q6_k", "q4_k_m"),
                         [](const auto& param) { return std::string(param.param); });

struct Record {
  uint32_t pos = 0;
  std::string name;
  std::vector<float> values;
};

std::vector<Record> readDump(const std::string& path) {
  const Bytes bytes = zemtest::wholeFile<Bytes>(path);
  std::vector<Record> records;
  size_t at = 0;
  const auto take = [&](void* to, size_t size) {
    std::memcpy(to, bytes.data() + at, size);
    at += size;
  };
  while (at < bytes.size()) {
    Record& r = records.emplace_back();
    uint32_t length = 0;
    uint64_t count = 0;
    take(&r.pos, sizeof r.pos);
    take(&length, sizeof length);
    r.name.resize(length);
    take(r.name.data(), length);
    take(&count, sizeof count);
    r.values.resize(count);
    take(r.values.data(), count * sizeof(float));
  }
  return records;
}

struct Outcome {
  std::string text;
  std::vector<Record> states;
};

Outcome outcomeOf(const Session& session) {
  const zemtest::TempFile file;
  const ScopedEnv env("QWEN35_HID_DUMP", file.path());
  const std::string text = textOf(session.generate(kPrompt));
  return {text, readDump(file.string())};
}

// Both sides add up in single precision, in different orders: what they differ
// by grows with the values, which reach 60 in these models.
void expectClose(const Record& gpu, const Record& cpu) {
  EXPECT_EQ(gpu.name, cpu.name);
  EXPECT_EQ(gpu.pos, cpu.pos);
  ASSERT_EQ(gpu.values.size(), cpu.values.size());
  float largest = 0;
  for (const float value : cpu.values) largest = std::max(largest, std::fabs(value));
  for (size_t i = 0; i < gpu.values.size(); ++i) {
    ASSERT_NEAR(gpu.values[i], cpu.values[i], 1e-4F * largest)
        << gpu.name << " at " << gpu.pos << ", element " << i;
  }
}

TEST_P(GpuSessionOfType, GreedyTextIsTheCpusAndHiddenStatesAreWithinATenThousandth) {
  const auto session = open(GetParam(), 4);
  EXPECT_EQ(session->createOutput(), "");
  expectAttached(*session);
  const Outcome gpu = outcomeOf(*session);
  const Outcome cpu = outcomeOf(*openOnCpu(GetParam(), 4));
  EXPECT_GT(gpu.text.size(), 3U);
  EXPECT_EQ(gpu.text, cpu.text);
  ASSERT_EQ(gpu.states.size(), cpu.states.size());
  ASSERT_GE(gpu.states.size(), 2U * (5 * 32 + 1));
  for (size_t i = 0; i < gpu.states.size(); ++i) expectClose(gpu.states[i], cpu.states[i]);
}

// ---- Plans ----

// Products of a token in a layer whose matrices all have a K type: query, key,
// value, output; or qkv, gate, beta, alpha, output; and three of the
// feed-forward block. Every fourth layer has full attention.
uint64_t productsOfLayer(size_t layer) { return layer % 4 == 3 ? 4 + 3 : 5 + 3; }

struct PlanCase {
  const char* name;
  const char* plan;
  size_t firstGpu;
  size_t lastGpu;  // one past
};

class GpuSessionPlan : public GpuSession, public ::testing::WithParamInterface<PlanCase> {};

INSTANTIATE_TEST_SUITE_P(Plans, GpuSessionPlan,
                         ::testing::Values(PlanCase{"None", "", 0, 32},
                                           PlanCase{"AllCpu", "cpu:all", 0, 0},
                                           PlanCase{"FirstFive", "gpu:5,cpu:all", 0, 5},
                                           PlanCase{"LastOne", "cpu:31,gpu:1", 31, 32}),
                         [](const auto& param) { return std::string(param.param.name); });

TEST_P(GpuSessionPlan, DecidesWhichProductsReachTheDevice) {
  const auto [name, plan, first, last] = GetParam();
  const auto session = open("q4_k", 4, plan);
  expectAttached(*session);
  const size_t onGpu = last - first;
  EXPECT_EQ(session->createOutput(),
            *plan == '\0' ? ""
                          : "[qwen35-gpu] layer plan: " + std::to_string(onGpu) + " gpu / " +
                                std::to_string(32 - onGpu) + " cpu layers\n");
  textOf(session->generate(kPrompt));

  const uint64_t tokens = session->members().pos;
  const uint64_t heads = tokens - (promptTokens(*session) - 1);
  uint64_t aToken = 0;
  for (size_t layer = first; layer < last; ++layer) aToken += productsOfLayer(layer);
  EXPECT_GE(tokens, 3U);
  EXPECT_EQ(session->members().gv->productCount(), tokens * aToken + (onGpu > 0 ? heads : 0));
}

TEST_F(GpuSession, WeightsOfOtherTypesAreComputedOnTheCpu) {
  const auto mixed = open("q4_k_m", 4);
  textOf(mixed->generate(kPrompt));
  const uint64_t tokens = mixed->members().pos;
  const uint64_t heads = tokens - (promptTokens(*mixed) - 1);
  // Beta and alpha of the 24 linear layers are Q8_0.
  EXPECT_EQ(mixed->members().gv->productCount(), tokens * (24 * 6 + 8 * 7) + heads);

  const auto plain = open("q8_0", 4);
  expectAttached(*plain);
  EXPECT_EQ(textOf(plain->generate(kPrompt)), textOf(openOnCpu("q8_0", 4)->generate(kPrompt)));
  EXPECT_EQ(plain->members().gv->productCount(), 0U);
}

TEST_F(GpuSession, ABadPlanTokenIsReportedAndTheSessionWorks) {
  const auto session = open("q4_k", 3, "gpu:1,tpu:3,cpu:all");
  EXPECT_EQ(session->createOutput(),
            "[qwen35-gpu] bad plan token 'tpu:3'\n"
            "[qwen35-gpu] layer plan: 1 gpu / 31 cpu layers\n");
  expectAttached(*session);
}

// ---- Attaching fails ----

template <auto& Function>
void attachFails(int nth = 1) {
  SCOPED_TRACE(nth);
  std::unique_ptr<Session> session;
  {
    const FailingCall<Function> failure(nth);
    session = std::make_unique<Session>(demoModel("q4_k"), "test;ctx=3", linked());
    EXPECT_TRUE(failure.happened());
  }
  EXPECT_PRED1(saysGpuUnavailable, session->createOutput());
  EXPECT_FALSE(session->members().gpuUp);
  EXPECT_EQ(session->members().gpu, nullptr);
  EXPECT_EQ(session->members().gv, nullptr);
  EXPECT_EQ(session->members().model.gpuGemvRow, nullptr);
  EXPECT_TRUE(session->members().modelReady);
}

TEST_F(GpuSession, AFailingContextLeavesTheCpu) {
  attachFails<vkCreateInstance>();
  attachFails<vkEnumeratePhysicalDevices>(1);
  attachFails<vkEnumeratePhysicalDevices>(2);
  attachFails<vkCreateDevice>();
  attachFails<vkCreateCommandPool>();
  attachFails<vkCreateFence>();
}

TEST_F(GpuSession, AFailingUploadLeavesTheCpu) {
  // The pool, the staging memory; the pool's buffer, the staging buffer, the
  // first and the last of 426 tensors.
  for (const int nth : {1, 2}) attachFails<vkAllocateMemory>(nth);
  for (const int nth : {1, 2, 3, 428}) attachFails<vkCreateBuffer>(nth);
  for (const int nth : {1, 2, 428}) attachFails<vkBindBufferMemory>(nth);
  attachFails<vkMapMemory>();
  attachFails<vkAllocateCommandBuffers>();
  attachFails<vkBeginCommandBuffer>();
  attachFails<vkEndCommandBuffer>();
  attachFails<vkQueueSubmit>(426);
  attachFails<vkWaitForFences>();
  attachFails<vkResetFences>();
}

TEST_F(GpuSession, AFailingKernelLeavesTheCpu) {
  for (const int nth : {1, 3}) {
    attachFails<vkCreateDescriptorSetLayout>(nth);
    attachFails<vkCreatePipelineLayout>(nth);
    attachFails<vkCreateShaderModule>(nth);
    attachFails<vkCreateComputePipelines>(nth);
    attachFails<vkCreateDescriptorPool>(nth);
    attachFails<vkAllocateDescriptorSets>(nth);
  }
}

TEST_F(GpuSession, WithoutTheGpuTextIsTheCpus) {
  const FailingCall<vkCreateDevice> failure;
  const auto session = open("q4_k", 4, "gpu:all");
  expectOnCpu(*session);
  EXPECT_EQ(textOf(session->generate(kPrompt)), textOf(openOnCpu("q4_k", 4)->generate(kPrompt)));
}

TEST_F(GpuSession, ATensorOutsideTheFileIsNotUploaded) {
  const zemtest::TempFile whole;
  Bytes bytes = zemtest::wholeFile<Bytes>(demoModel("q4_k").path());
  zemtest::set(bytes, zemtest::tensorIndex(bytes, "blk.3.ffn_up.weight"), zemtest::tensor::offset,
               bytes.size());
  const Session session(ModelFile(bytes), "test", linked());
  expectOnCpu(session);
  zemtest::stderrOf([&] { EXPECT_EQ(session.generate(kPrompt).rc, 1); });
}

// ---- The device fails later ----

TEST_F(GpuSession, ProductsThatFailAreComputedOnTheCpu) {
  const std::string expected = textOf(openOnCpu("q4_k", 4)->generate(kPrompt));
  const auto session = open("q4_k", 4, "gpu:4,cpu:all");
  {
    const FailingCall<vkQueueSubmit> failure(10, 20);
    EXPECT_EQ(textOf(session->generate(kPrompt)), expected);
    EXPECT_TRUE(failure.happened());
  }
  const uint64_t products = session->members().gv->productCount();
  {
    const FailingCall<vkWaitForFences> failure(1, 1 << 30);
    EXPECT_EQ(textOf(session->generate(kPrompt)), expected);
  }
  EXPECT_EQ(session->members().gv->productCount(), products);
  EXPECT_EQ(textOf(session->generate(kPrompt)), expected);
  EXPECT_GT(session->members().gv->productCount(), products);
}

// ---- Lifetimes ----

TEST_F(GpuSession, TwoSessionsWorkSideBySideAndOneOutlivesTheOther) {
  auto first = open("q4_k", 3, "gpu:2,cpu:all");
  const auto second = open("q5_k", 3, "gpu:2,cpu:all");
  const std::string a = textOf(first->generate(kPrompt));
  const std::string b = textOf(second->generate(kPrompt));
  EXPECT_EQ(textOf(first->generate(kPrompt)), a);
  first.reset();
  EXPECT_EQ(textOf(second->generate(kPrompt)), b);
  EXPECT_EQ(textOf(open("q4_k", 3, "gpu:2,cpu:all")->generate(kPrompt)), a);
}

TEST_F(GpuSession, ChatBenchmarkAndResetUseTheGpu) {
  const auto session = open("q4_k", 20, "gpu:1,cpu:all");
  const auto products = [&] { return session->members().gv->productCount(); };
  const uint64_t atFirst = products();
  const zemtest::StreamResult reply = session->stream("Hi");
  EXPECT_EQ(reply.rc, 0);
  const uint64_t afterChat = products();
  EXPECT_GT(afterChat, atFirst);
  EXPECT_EQ(session->reset(), 0);
  EXPECT_EQ(session->stream("Hi").text(), reply.text());
  ZEMBenchParams params = {};
  params.struct_size = sizeof params;
  params.tokens = 2;
  params.warmup = 1;
  ZEMBenchResult result = {};
  result.struct_size = sizeof result;
  const uint64_t beforeBench = products();
  EXPECT_EQ(session->api().bench(session->handle(), &params, &result), 0);
  EXPECT_GT(products(), beforeBench);
}

}  // namespace
