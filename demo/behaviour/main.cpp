// SPDX-License-Identifier: Apache-2.0
// Asks a model the questions of a file, and prints how many replies of each kind were right.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "demo/behaviour/behaviour.h"

namespace {

struct Options {
  std::string model;
  std::string cases;
  std::string math = "exact";
  std::string cache = "f16";
  size_t threads = 0;
  bool json = false;
  bool failures = false;
};

int fail(const std::string& what) {
  std::fprintf(stderr, "behaviour: %s\n", what.c_str());
  return 1;
}

void print(const std::vector<zem::behaviour::Rate>& rates, const Options& options) {
  nlohmann::ordered_json all = nlohmann::ordered_json::object();
  for (const zem::behaviour::Rate& rate : rates) {
    all[rate.kind] = {{"passed", rate.passed}, {"asked", rate.asked}};
    if (!options.json) {
      std::printf("%4zu of %4zu  %s\n", rate.passed, rate.asked, rate.kind.c_str());
    }
    if (!options.failures) continue;
    for (const std::string& line : rate.failures) std::fprintf(stderr, "  %s\n", line.c_str());
  }
  if (options.json) {
    std::puts(all.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
  }
}

int run(const Options& options) {
  std::ifstream file(options.cases, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (!file) return fail(options.cases + " cannot be read");
  std::vector<zem::behaviour::Case> cases;
  kiv::Status status = zem::behaviour::readCases(text, cases);
  if (!status.ok()) return fail(options.cases + ": " + status.message());
  zem::EngineOptions settings;
  settings.threads = options.threads;
  settings.math = options.math == "fast" ? zem::Math::Fast : zem::Math::Exact;
  settings.cacheNumbers =
      options.cache == "f32" ? zem::CacheNumbers::Float : zem::CacheNumbers::Half;
  settings.sequences = 8;
  settings.waiting = cases.size();
  std::unique_ptr<zem::Engine> engine;
  status = zem::Engine::open(options.model, settings, engine);
  if (!status.ok()) return fail(options.model + ": " + status.message());
  std::vector<zem::behaviour::Rate> rates;
  status = measure(*engine, cases, rates);
  if (!status.ok()) return fail(options.model + ": " + status.message());
  print(rates, options);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("How many replies of a model are right");
  app.add_option("model", options.model, "Model file (.zem)")->required();
  app.add_option("cases", options.cases, "Questions, a line of JSON each")->required();
  app.add_option("--math", options.math)->check(CLI::IsMember({"exact", "fast"}));
  app.add_option("--cache", options.cache)->check(CLI::IsMember({"f16", "f32"}));
  app.add_option("-t,--threads", options.threads, "CPU threads (default: one a processor)");
  app.add_flag("--json", options.json, "Print JSON");
  app.add_flag("--failures", options.failures, "Show the replies that were wrong");
  CLI11_PARSE(app, argc, argv);
  return run(options);
}
