// SPDX-License-Identifier: Apache-2.0
// zem make-demo: writes a model with random weights, to try and to measure with.
#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "commands/commands.h"
#include "commands/options.h"
#include "compat/files.h"
#include "console/long_work.h"
#include "console/terminal.h"
#include "console/text.h"
#include "convert/ordered_work.h"
#include "demo/demo_model.h"

namespace zemtool {
namespace {

using kiv::WeightMix;

constexpr uint64_t kJobWeights = uint64_t{1} << 18;  // about; a job has whole rows

struct MakeDemoOptions {
  std::string output;
  std::string size = demoSizeName(DemoSize::Tiny);
  std::string type;  // empty: the size's own
  uint64_t seed = 1;
  bool force = false;
};

void require(const kiv::Status& status) {
  if (!status.ok()) throw Failure(status.message());
}

struct Job {
  const DemoTensor* tensor;
  uint64_t firstRow;
  uint64_t rows;
};

std::vector<Job> cutIntoJobs(const DemoModel& model, const std::vector<std::string>& order) {
  std::vector<Job> jobs;
  for (const std::string& name : order) {
    const auto tensor = std::find_if(model.tensors.begin(), model.tensors.end(),
                                     [&](const DemoTensor& t) { return t.name == name; });
    const uint64_t step = std::max<uint64_t>(1, kJobWeights / tensor->cols());
    for (uint64_t row = 0; row < tensor->rows(); row += step) {
      jobs.push_back({&*tensor, row, std::min(step, tensor->rows() - row)});
    }
  }
  return jobs;
}

void writeWeights(const DemoModel& model, const std::string& path, kiv::ZEM2Writer& writer) {
  const std::vector<Job> jobs = cutIntoJobs(model, writer.order());
  ProgressBar progress(writer.totalBytes(), ProgressBar::Lines::None);
  uint64_t done = 0;
  runOrdered(
      jobs.size(), std::thread::hardware_concurrency(),
      [&](size_t i, std::vector<uint8_t>& bytes) {
        encodeDemoRows(model, *jobs[i].tensor, jobs[i].firstRow, jobs[i].rows, bytes);
      },
      [&](size_t, const std::vector<uint8_t>& bytes) {
        if (StopGuard::stopped()) throw Failure("interrupted; " + path + " was not written");
        require(writer.write(bytes.data(), bytes.size()));
        progress.update(done += bytes.size());
      });
}

WeightMix defaultType(DemoSize size) {
  return size == DemoSize::Tiny ? WeightMix::Q4_K : WeightMix::Q4_K_M;
}

// `name` is one of the names: the option's check refused others.
template <typename Enum, size_t kCount>
Enum valueNamed(const std::array<Enum, kCount>& values, const char* (*nameOf)(Enum),
                const std::string& name) {
  return *std::find_if(values.begin(), values.end(),
                       [&](Enum value) { return name == nameOf(value); });
}

void makeDemo(const MakeDemoOptions& options) {
  if (!options.force && std::filesystem::exists(compat::pathOf(options.output))) {
    throw Failure(options.output + " exists; use --force to replace it");
  }
  const StopGuard guard;
  const DemoSize size = valueNamed(kDemoSizes, demoSizeName, options.size);
  const WeightMix type = options.type.empty()
                             ? defaultType(size)
                             : valueNamed(kDemoTypes, kiv::weightMixName, options.type);
  const DemoModel model = planDemoModel(size, type, options.seed);
  kiv::ZEM2Writer writer;
  declareDemoModel(model, "zem " ZEM_VERSION, writer);
  require(writer.begin(options.output));
  writeWeights(model, options.output, writer);
  require(writer.finish());
}

template <typename Enum, size_t kCount>
std::vector<std::string> namesOf(const std::array<Enum, kCount>& values,
                                 const char* (*name)(Enum)) {
  std::vector<std::string> names(kCount);
  std::transform(values.begin(), values.end(), names.begin(), name);
  return names;
}

}  // namespace

void addMakeDemo(Command& program, int& status) {
  auto options = std::make_shared<MakeDemoOptions>();
  Command command = program.command(
      "make-demo", "Write a model with random weights, to try and measure with", "Make models");
  command.option("output,-o,--output", options->output, "The file to write")
      .valueName("FILE")
      .required();
  command.option("--size", options->size, "tiny, 0.8b, 2b, 4b or 9b")
      .valueName("SIZE")
      .oneOf(namesOf(kDemoSizes, demoSizeName))
      .showDefault();
  command.option("--type", options->type, "Type of the matrices, see below")
      .valueName("TYPE")
      .oneOf(namesOf(kDemoTypes, kiv::weightMixName));
  addSeedOption(command, "--seed", options->seed, "Seed of the weights").showDefault();
  command.flag("--force", options->force, "Replace a file that exists");
  command.footer(
      "The model has the names, shapes and metadata of a real one and knows nothing: its output\n"
      "is a stream of words. The same seed gives the same file on every machine.\n"
      "\n"
      "  tiny   width 256, about 15 MB; layers of a kind share their weights. Default type q4_k.\n"
      "  0.8b, 2b, 4b, 9b\n"
      "         248320 tokens and the shapes of the real models of as many billion weights, for\n"
      "         benchmarks; 0.5, 1.3, 2.7 and 6.0 GB in their default type q4_k_m. 9b has an\n"
      "         output head of its own.\n"
      "\n"
      "Types: f32, bf16, q8_0, q4_k, q5_k, q6_k, and the mix q4_k_m (q6_k for the embedding, the\n"
      "output head, attn_v and ffn_down, q8_0 for ssm_alpha and ssm_beta, q4_k for the rest).\n"
      "\n"
      "The vocabulary gives back the characters of the Basic Multilingual Plane and emoji\n"
      "unchanged; controls other than tab and line ends, and rarer planes, are dropped.\n"
      "\n"
      "Example:\n  zem make-demo demo.zem");
  command.action([options, &status] { status = guarded([&] { makeDemo(*options); }); });
}

}  // namespace zemtool
