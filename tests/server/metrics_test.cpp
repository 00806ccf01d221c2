// SPDX-License-Identifier: Apache-2.0
#include "server/metrics.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>

namespace zem::server {
namespace {

std::set<std::string> namesIn(const std::string& text) {
  static const std::regex kName("\\bzem_[a-z_]+");
  std::set<std::string> names;
  for (std::sregex_iterator it(text.begin(), text.end(), kName), end; it != end; ++it) {
    names.insert(it->str());
  }
  return names;
}

TEST(Metrics, HistogramCountsUpward) {
  Engine::Load load;
  load.steps.add(0.001);
  load.steps.add(0.3);
  load.steps.add(99);
  const std::string text = Metrics().text(load, 0);
  for (const char* line :
       {"_bucket{le=\"0.001\"} 1\n", "_bucket{le=\"0.5\"} 2\n", "_bucket{le=\"10\"} 2\n",
        "_bucket{le=\"+Inf\"} 3\n", "_sum 99.301\n", "_count 3\n"}) {
    EXPECT_NE(text.find(std::string("\nzem_step_seconds") + line), std::string::npos) << line;
  }
}

TEST(Metrics, LoadIsThatOfTheEngine) {
  Engine::Load load;
  load.evictions = 7;
  load.keptStates = 3;
  const std::string text = Metrics().text(load, 2);
  EXPECT_NE(text.find("\nzem_cache_evictions_total 7\n"), std::string::npos);
  EXPECT_NE(text.find("\nzem_cache_states 3\n"), std::string::npos);
  EXPECT_NE(text.find("\nzem_connections 2\n"), std::string::npos);
}

TEST(Metrics, BoardAsksForMetricsThatExist) {
  std::ifstream file(ZEM_TEST_DATA "/../../deploy/grafana.json");
  const std::string board{std::istreambuf_iterator<char>(file), {}};
  const std::set<std::string> shown = namesIn(board);
  EXPECT_GE(shown.size(), 15U);
  const std::set<std::string> known = namesIn(Metrics().text({}, 0));
  for (const std::string& name : shown) EXPECT_TRUE(known.contains(name)) << name;
}

}  // namespace
}  // namespace zem::server
