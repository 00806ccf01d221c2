// SPDX-License-Identifier: Apache-2.0
// What the tests of `zem run` and `zem chat` share: a small model with random weights, whose
// tokens are bytes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "engine/chat_model.h"
#include "support/temp_file.h"
#include "zem/commands/cli_support.h"

namespace zemtest {

inline Arguments with(Arguments arguments, const Arguments& more) {
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

class TalkTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    model_ = new TempFile;
    writeChatModel(*model_);
  }
  static void TearDownTestSuite() { delete model_; }

  // `zem COMMAND -m MODEL -t 1 MORE`
  static Arguments talk(const std::string& command, const Arguments& more) {
    return with({command, "-m", model_->string(), "-t", "1"}, more);
  }

  static TempFile* model_;
  TempFolder folder_;
};

inline TempFile* TalkTest::model_ = nullptr;

// The objects of lines of JSON.
inline std::vector<nlohmann::json> linesOf(const std::string& text) {
  std::vector<nlohmann::json> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find('\n', at);
    lines.push_back(nlohmann::json::parse(text.substr(at, end - at)));
    at = end == std::string::npos ? text.size() : end + 1;
  }
  return lines;
}

}  // namespace zemtest
