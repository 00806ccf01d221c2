// SPDX-License-Identifier: Apache-2.0
// Any text as config.json, and as generation_config.json: facts or a Failure.
#include <cmath>
#include <string>

#include "console/terminal.h"
#include "convert/checkpoint_config.h"
#include "fuzz.h"

namespace {

using zemfuzz::require;

void readConfig(const std::string& folder) {
  try {
    const zemtool::CheckpointConfig config = zemtool::readCheckpointConfig(folder);
    require(config.eosId >= -1, "an id below none");
  } catch (const zemtool::Failure& failure) {
    require(*failure.what() != '\0', "a failure without a message");
  }
}

void readRecommended(const std::string& folder) {
  try {
    const zemtool::Sampling sampling = zemtool::readSampling(folder);
    require(!sampling.temperature || std::isfinite(*sampling.temperature), "no temperature");
    require(!sampling.topP || std::isfinite(*sampling.topP), "no share");
  } catch (const zemtool::Failure& failure) {
    require(*failure.what() != '\0', "a failure without a message");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const zemfuzz::ScratchFolder folder;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  folder.write("config.json", text);
  folder.write("generation_config.json", text);
  readConfig(folder.path());
  readRecommended(folder.path());
  return 0;
}
