// SPDX-License-Identifier: Apache-2.0
// Options of the commands that talk to a model through the engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands/arguments.h"
#include "engine/chat.h"
#include "engine/engine.h"
#include "talk/reply_printer.h"

namespace zemtool {

// A model and how it computes.
struct ModelOptions {
  std::string model;
  std::string cache = "f16";
  std::string math = "exact";
  int32_t threads = 0;  // 0: one a processor
  int32_t context = 0;  // 0: the model's
  int32_t batch = 0;    // 0: the engine's
};

// What a reply is like.
struct TalkOptions {
  ModelOptions model;
  std::string chatTemplate;
  std::string system;
  std::string think = "auto";
  std::string thinkShow = "auto";
  std::optional<uint64_t> thinkBudget;
  std::string tools;  // a file
  zem::SamplingSettings sampling;
  std::vector<std::string> stops;
  int32_t tokens = -1;  // -1: until the reply ends
};

// -m, -c, -t, -b, --cache and --math.
void addModelOptions(Command& command, ModelOptions& options);
// Those, and the options of prompts, thinking, sampling and ends; each under its heading.
void addTalkOptions(Command& command, TalkOptions& options);

// How the engine is set up; one sequence.
zem::EngineOptions settingsOf(const ModelOptions& options);
// Throws Failure. `cacheBytes` is the memory for states that later prompts may go on from.
std::unique_ptr<zem::Engine> openEngine(const ModelOptions& options,
                                        const std::string& chatTemplate, size_t cacheBytes);

// A request without messages. Reads the file of the tools; throws Failure.
zem::ChatRequest chatRequestOf(const TalkOptions& options);

// How thinking is shown: by --think-show, else as `view` on a terminal and not at all elsewhere.
ThinkingView thinkingView(const TalkOptions& options, ThinkingView view);

// A file with JSON, of a kind such as "tools file". Throws Failure.
zem::text::Json readJsonFile(const std::string& path, const std::string& kind);

}  // namespace zemtool
