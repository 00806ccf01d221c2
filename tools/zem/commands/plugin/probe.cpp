// SPDX-License-Identifier: Apache-2.0
// zem plugin probe: whether the plug-in would take a model file.
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/options.h"
#include "commands/plugin/plugin.h"
#include "console/terminal.h"
#include "console/text.h"
#include "host/model_file.h"
#include "host/plugin_host.h"

namespace zemtool {
namespace {

struct ProbeOptions {
  std::string file;
  std::string plugin;
  bool json = false;
};

// The plug-in gives no reason for a refusal.
std::string explainRefusal(const std::string& path) {
  if (path.size() < 4 || path.compare(path.size() - 4, 4, ".zem") != 0) {
    return "the file's name does not end in \".zem\"";
  }
  std::string problem = modelProblem(path);
  if (!problem.empty()) return problem;
  return "the model is sound, but there is no usable Vulkan device (see `zem devices`); `zem "
         "plugin run` "
         "computes on the CPU";
}

void probe(const ProbeOptions& options) {
  requireReadable(options.file);
  const PluginHost host(findPlugin(options.plugin));
  ZEMRuntimeProbe verdict{0, "", "", ""};
  host.runtime().probe(options.file.c_str(), &verdict);
  const std::string reason = verdict.confidence > 0 ? verdict.reason : explainRefusal(options.file);
  if (options.json) {
    writeJson({{"file", options.file},
               {"runtime", host.runtime().id},
               {"confidence", verdict.confidence},
               {"architecture", verdict.architecture},
               {"backend", verdict.backend},
               {"reason", reason}});
    return;
  }
  writeOut(formatTable({{"runtime", host.runtime().id},
                        {"confidence", std::to_string(verdict.confidence)},
                        {"architecture", verdict.architecture},
                        {"backend", verdict.backend},
                        {"reason", escapeControls(reason)}}));
}

}  // namespace

void addPluginProbe(Command& program, int& status) {
  auto options = std::make_shared<ProbeOptions>();
  Command command = program.command("probe", "Ask the plug-in whether a model file suits it");
  command.option("file", options->file, "Model file (.zem)").required().valueName("FILE");
  addPluginOption(command, options->plugin);
  command.flag("--json", options->json, "Print JSON");
  command.footer(
      "Confidence is 0 (not a model for this runtime here) to 100. Either is an answer: the exit\n"
      "status is 1 only when the file cannot be read.\n\nExample:\n  zem plugin probe model.zem");
  command.action([options, &status] { status = guarded([&] { probe(*options); }); });
}

}  // namespace zemtool
