// SPDX-License-Identifier: Apache-2.0
// The measurements of `zem plugin bench`, taken through the runtime's boundary.
#pragma once

#include <string>
#include <vector>

#include "bench/bench_test.h"
#include "bench/exact_prompt.h"
#include "console/progress_line.h"
#include "host/plugin_host.h"

namespace zemtool {

// Positions that a conversation of the runtime may reach.
inline constexpr int kPositions = 8192;

// A test with the texts that it feeds.
struct PreparedTest {
  BenchTest test;
  std::string before;  // fed untimed: a short prompt, or the turn that fills the depth
  std::string text;    // the prompt or turn; unused where the runtime has its own
  int frame = 0;       // tokens around a turn without text
};

// Throws UsageError for a test that goes beyond kPositions.
void requireRoom(const BenchTest& test);

bool needsTexts(const BenchTest& test);

// Throws UsageError for a test that goes beyond kPositions with the frames of its turns, and
// Failure when no text has the length. `maker` may be null when the test needs no texts.
PreparedTest prepare(const BenchTest& test, const ExactPrompt* maker);

// Runs tests on one session. Methods throw Failure when the runtime reports one.
class BenchRunner {
 public:
  BenchRunner(Session& session, const ProgressLine& progress)
      : session_(session), progress_(progress) {}

  // Tokens per second, one number for each repetition. When the model ends its text too
  // early, the test's tokens become those that were decoded, and a line on stderr says so.
  std::vector<double> run(PreparedTest& prepared, int repetitions);

 private:
  struct Decoded {
    int steps = 0;
    double seconds = 0;
  };

  std::vector<double> feed(const PreparedTest& prepared, int repetitions);
  double promptRate(const PreparedTest& prepared);
  double deepPromptRate(const PreparedTest& prepared);
  std::vector<double> decodeFromStart(BenchTest& test, int repetitions);
  std::vector<double> decodeAtDepth(PreparedTest& prepared, int repetitions);
  Decoded decodeTurns(const PreparedTest& prepared);
  void shortenToText(BenchTest& test);
  void setContext(int positions);
  void show(const BenchTest& test, int repetition, int repetitions) const;

  Session& session_;
  const ProgressLine& progress_;
};

}  // namespace zemtool
