// SPDX-License-Identifier: Apache-2.0
// Runs the example programs on a small model.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "support/subprocess.h"
#include "support/temp_folder.h"
#include "support/tiny_model.h"

namespace zemtest {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using Arguments = std::vector<std::string>;

const std::string kPlugin = ZEM_TEST_BIN "/runtime_qwen35_vulkan.so";
const std::string kPlugins = ZEM_TEST_PLUGINS;
const std::string kPython = ZEM_TEST_PYTHON;

// On the CPU, with one thread: the model is too small to share out.
const Environment kSurroundings = {
    {"ZEM_NO_VULKAN", "1"}, {"OMP_NUM_THREADS", "1"}, {"LC_ALL", "C.UTF-8"}};

// A model whose replies never end: the rows of the two stop tokens are zero.
Bytes endlessModel() {
  TinyModelOptions options;
  options.linearLayers.clear();
  TinyModel model(options);
  for (const size_t stop : {size_t{0}, size_t{2}}) {
    for (size_t i = 0; i < options.width; ++i) {
      model.setFloat("token_embd.weight", stop * options.width + i, 0.0F);
    }
  }
  return model.build();
}

// The same program in two languages.
struct Host {
  const char* name;  // as its messages begin
  Arguments command;
  Environment environment;
  friend void PrintTo(const Host& host, std::ostream* out) { *out << host.name; }
};

Host cHost() { return {"c_host", {ZEM_TEST_EXAMPLES "/c_host"}, kSurroundings}; }

Host pythonHost() {
  Environment environment = kSurroundings;
  environment["LD_PRELOAD"] = ZEM_TEST_PRELOAD;
  // The interpreter itself lets memory go with the process.
  if (!environment["LD_PRELOAD"].empty()) environment["ASAN_OPTIONS"] = "detect_leaks=0";
  return {"host.py", {kPython, ZEM_SOURCE "/examples/python_host/host.py"}, environment};
}

class ExampleHost : public ::testing::TestWithParam<Host> {
 protected:
  void SetUp() override {
    if (GetParam().command.front().empty()) GTEST_SKIP() << "no python3 on this machine";
  }

  Arguments command(const Arguments& arguments) const {
    Arguments all = GetParam().command;
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }
  ProcessResult run(const Arguments& arguments) const {
    return runProcess(command(arguments), "", GetParam().environment);
  }
  // What the program writes when it fails: a line with its name in front.
  std::string failure(const Arguments& arguments) const {
    const ProcessResult result = run(arguments);
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_EQ(result.out, "");
    return result.err;
  }
  std::string line(const std::string& text) const {
    return std::string(GetParam().name) + ": " + text + "\n";
  }

  TempFolder folder_;
};

TEST_P(ExampleHost, StreamsAReply) {
  const std::string model = folder_.write("tiny.zem", endlessModel());
  const ProcessResult result = run({kPlugin, model, "Hello"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_GT(result.out.size(), 90U);  // 96 tokens of a character or more
  EXPECT_THAT(result.out, EndsWith("\n"));
  EXPECT_THAT(result.err, StartsWith(line("qwen35-vulkan, confidence 0")));
  EXPECT_THAT(result.err, HasSubstr(line("Ctrl-C ends the reply")));
  EXPECT_THAT(result.err, HasSubstr(std::string(GetParam().name) + ": 96 tokens in "));
}

TEST_P(ExampleHost, SaysThatAModelIsMissing) {
  const std::string model = folder_.path("missing.zem");
  EXPECT_THAT(failure({kPlugin, model, "Hello"}),
              EndsWith(line(model + ": No such file or directory")));
}

TEST_P(ExampleHost, SaysThatAModelIsNone) {
  const std::string model = folder_.write("text.zem", "some text");
  EXPECT_THAT(failure({kPlugin, model, "Hello"}), EndsWith(line(model + ": zem open failed")));
}

// No rows for most of the vocabulary: the message cannot be fed.
TEST_P(ExampleHost, SaysThatATurnFailed) {
  TinyModelOptions options;
  options.linearLayers.clear();
  options.vocab = 5;
  const std::string model = folder_.write("tiny.zem", TinyModel(options).build());
  EXPECT_THAT(failure({kPlugin, model, "Hello"}),
              EndsWith("has no embedding row - the model has 5 rows\n" +
                       line("the turn failed: a line above says why, or the context is full")));
}

TEST_P(ExampleHost, SaysThatThePluginIsMissing) {
  const std::string plugin = folder_.path("missing.so");
  EXPECT_THAT(failure({plugin, "model.zem", "Hello"}),
              StartsWith(std::string(GetParam().name) + ": cannot load the plug-in: " + plugin));
}

TEST_P(ExampleHost, SaysThatALibraryIsNoPlugin) {
  const std::string plugin = kPlugins + "/plugin_without_exports.so";
  EXPECT_EQ(failure({plugin, "model.zem", "Hello"}), line(plugin + ": not a runtime plug-in"));
}

TEST_P(ExampleHost, CallsNothingOfAnotherVersion) {
  const std::string plugin = kPlugins + "/fake_plugin_of_old_version.so";
  EXPECT_EQ(failure({plugin, "good.zem", "Hello"}),
            line(plugin + ": made for another version of the boundary"));
}

TEST_P(ExampleHost, ExplainsItsArguments) {
  for (const Arguments& arguments : {Arguments{}, {kPlugin}, {kPlugin, "m", "text", "more"}}) {
    const ProcessResult result = run(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "usage: " + std::string(GetParam().name) + " PLUGIN MODEL MESSAGE\n");
  }
}

// A program whose output has no room: it waits with its first byte until it is read.
class StuckProcess {
 public:
  StuckProcess(const Arguments& arguments, const Environment& environment) {
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    EXPECT_EQ(pipe2(out.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(err.data(), O_CLOEXEC), 0);
    const int capacity = fcntl(out[1], F_SETPIPE_SZ, 4096);
    filler_ = std::string(capacity > 0 ? static_cast<size_t>(capacity) : 0, '#');
    EXPECT_EQ(write(out[1], filler_.data(), filler_.size()), capacity);
    child_ = fork();
    if (child_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      dup2(err[1], STDERR_FILENO);
      detail::execute(arguments, environment);
    }
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
  }
  ~StuckProcess() {
    if (child_ > 0) kill(child_, SIGKILL);
    end();
    close(out_);
    close(err_);
  }
  StuckProcess(const StuckProcess&) = delete;
  StuckProcess& operator=(const StuckProcess&) = delete;

  // Reads the standard error stream until `text` has come.
  bool says(const std::string& text) {
    while (error_.find(text) == std::string::npos) {
      if (!detail::drain(err_, error_)) return false;
    }
    return true;
  }
  void interrupt() const { kill(child_, SIGINT); }
  // Makes room, and reads both streams to their ends.
  ProcessResult end() {
    std::string output;
    while (detail::drain(out_, output)) {
    }
    while (detail::drain(err_, error_)) {
    }
    if (child_ > 0) waitpid(child_, &waited_, 0);
    child_ = -1;
    return {detail::exitStatus(waited_), output.substr(std::min(filler_.size(), output.size())),
            error_};
  }

 private:
  std::string filler_;
  std::string error_;
  pid_t child_ = -1;
  int waited_ = 0;
  int out_ = -1;
  int err_ = -1;
};

TEST_P(ExampleHost, AnInterruptEndsTheReply) {
  const std::string model = folder_.write("tiny.zem", endlessModel());
  StuckProcess host(command({kPlugin, model, "Hello"}), GetParam().environment);
  ASSERT_TRUE(host.says("Ctrl-C ends the reply"));
  host.interrupt();
  const ProcessResult result = host.end();
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, ::testing::ContainsRegex(": cancelled after [0-2] pieces\n"));
  EXPECT_THAT(result.err, ::testing::ContainsRegex(": [0-3] tokens in "));
  EXPECT_LT(result.out.size(), 20U);
}

TEST(ExampleHosts, PassTheSameBytesOn) {
  if (kPython.empty()) GTEST_SKIP() << "no python3 on this machine";
  const TempFolder folder;
  const std::string model = folder.write("tiny.zem", endlessModel());
  const auto reply = [&](const Host& host) {
    Arguments arguments = host.command;
    for (const std::string& argument :
         {kPlugin, model, std::string("the \xE6\x9D\xB1\xFF <|im_start|> \"an\"")}) {
      arguments.push_back(argument);
    }
    const ProcessResult result = runProcess(arguments, "", host.environment);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  };
  const std::string inC = reply(cHost());
  EXPECT_GT(inC.size(), 90U);
  EXPECT_EQ(reply(pythonHost()), inC);
}

INSTANTIATE_TEST_SUITE_P(In, ExampleHost, ::testing::Values(cHost(), pythonHost()),
                         [](const auto& row) {
                           return std::string(row.param.name) == "c_host" ? "C" : "Python";
                         });

std::string contents(const std::string& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file.is_open()) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

// The blocks of code in one language.
std::vector<std::string> blocks(const std::string& document, const std::string& language) {
  std::vector<std::string> found;
  const std::string begin = "\n```" + language + "\n";
  for (size_t at = document.find(begin); at != std::string::npos;
       at = document.find(begin, at + 1)) {
    const size_t first = at + begin.size();
    found.push_back(document.substr(first, document.find("```\n", first) - first));
  }
  return found;
}

TEST(EmbeddingDocument, CodeIsThatOfTheExamples) {
  const std::string document = contents(ZEM_SOURCE "/docs/embedding.md");
  const std::map<std::string, std::string> sources = {{"c", "c_host/main.c"},
                                                      {"cpp", "library/continue_text.cpp"},
                                                      {"cmake", "library/CMakeLists.txt"},
                                                      {"python", "python_host/host.py"}};
  for (const auto& [language, name] : sources) {
    const std::string source = contents(ZEM_SOURCE "/examples/" + name);
    const std::vector<std::string> found = blocks(document, language);
    EXPECT_FALSE(found.empty()) << language;
    for (const std::string& block : found) EXPECT_THAT(source, HasSubstr(block));
  }
}

class ContinueText : public ::testing::Test {
 protected:
  static ProcessResult run(Arguments arguments) {
    arguments.insert(arguments.begin(), ZEM_TEST_EXAMPLES "/continue_text");
    return runProcess(arguments, "", kSurroundings);
  }
  static std::string failure(const Arguments& arguments) {
    const ProcessResult result = run(arguments);
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_EQ(result.out, "");
    return result.err;
  }
  TempFolder folder_;
};

TEST_F(ContinueText, WritesAsManyTokensAsAskedFor) {
  const std::string model = folder_.write("tiny.zem", endlessModel());
  const ProcessResult ten = run({model, "the system", "10"});
  EXPECT_EQ(ten.status, 0) << ten.err;
  EXPECT_EQ(ten.err, "");
  EXPECT_GT(ten.out.size(), 10U);
  const ProcessResult twenty = run({model, "the system", "20"});
  EXPECT_THAT(twenty.out, StartsWith(ten.out.substr(0, ten.out.size() - 1)));
  EXPECT_GT(twenty.out.size(), ten.out.size());
  EXPECT_EQ(run({model, "the system", "0"}).out, "\n");
}

TEST_F(ContinueText, SaysWhatIsWrong) {
  const std::string missing = folder_.path("missing.zem");
  EXPECT_THAT(failure({missing, "text"}), StartsWith("continue_text: " + missing + ": "));
  const std::string model = folder_.write("tiny.zem", endlessModel());
  EXPECT_THAT(failure({model, ""}), EndsWith(": the text has no tokens\n"));
  for (const char* count : {"2048", "-1", "99999999999999999999"}) {
    EXPECT_THAT(failure({model, "the system", count}),
                EndsWith(": text and continuation are too long\n"));
  }
  TinyModelOptions options;
  options.architecture = "other";
  const std::string other = folder_.write("other.zem", TinyModel(options).build());
  EXPECT_THAT(failure({other, "text"}), EndsWith(": not a model of this architecture\n"));
}

TEST_F(ContinueText, ExplainsItsArguments) {
  EXPECT_EQ(run({}).status, 2);
  EXPECT_EQ(run({"a", "b", "c", "d"}).status, 2);
}

}  // namespace
}  // namespace zemtest
