// SPDX-License-Identifier: Apache-2.0
// The main() of every test program. Where ZEM_EXPECTED_SKIPS names a file, a test that
// skips without being listed there fails the program, and so does a filter that no test
// matches: a test that silently stops running proves nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

template class nlohmann::basic_json<>;

namespace {

// Whether `pattern`, in which a '*' stands for any text, is all of `name`.
bool matches(std::string_view pattern, std::string_view name) {
  if (pattern.empty()) return name.empty();
  if (pattern.front() != '*') {
    return !name.empty() && name.front() == pattern.front() &&
           matches(pattern.substr(1), name.substr(1));
  }
  for (size_t i = 0; i <= name.size(); ++i) {
    if (matches(pattern.substr(1), name.substr(i))) return true;
  }
  return false;
}

// The file's lines, but for empty ones and those that begin with '#': names of tests, as
// patterns.
std::vector<std::string> readExpectedSkips(const char* path) {
  std::ifstream file(path);
  if (!file) {
    std::fprintf(stderr, "ZEM_EXPECTED_SKIPS: cannot read %s\n", path);
    std::exit(2);
  }
  std::vector<std::string> names;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line.front() != '#') names.push_back(line);
  }
  return names;
}

class SkipCheck : public ::testing::EmptyTestEventListener {
 public:
  explicit SkipCheck(const char* path) : expected_(readExpectedSkips(path)) {}

  bool ok() const { return ok_; }

 private:
  void OnTestEnd(const ::testing::TestInfo& test) override {
    if (!test.result()->Skipped()) return;
    const std::string name = std::string(test.test_suite_name()) + "." + test.name();
    for (const std::string& line : expected_) {
      if (matches(line, name)) return;
    }
    std::printf("[  FAILED  ] %s was skipped, which nothing lists as expected\n", name.c_str());
    ok_ = false;
  }

  std::vector<std::string> expected_;
  bool ok_ = true;
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleMock(&argc, argv);
  const char* path = std::getenv("ZEM_EXPECTED_SKIPS");
  if (path == nullptr || *path == '\0') return RUN_ALL_TESTS();
  auto* check = new SkipCheck(path);  // owned by the listeners
  ::testing::UnitTest::GetInstance()->listeners().Append(check);
  const int status = RUN_ALL_TESTS();
  if (::testing::UnitTest::GetInstance()->test_to_run_count() == 0) {
    std::printf("[  FAILED  ] no test matches --gtest_filter\n");
    return 1;
  }
  return status == 0 && !check->ok() ? 1 : status;
}
