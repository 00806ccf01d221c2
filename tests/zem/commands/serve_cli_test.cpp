// SPDX-License-Identifier: Apache-2.0
// zem serve: what it says, and how it ends. tests/server has the rest.
#include <gmock/gmock.h>

#include "cli_support.h"
#include "server/http_client.h"

namespace zemtest {
namespace {

using ::testing::HasSubstr;

class ServeCli : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(zem({"make-demo", model_}).status, 0); }

  TempFolder folder_;
  std::string model_ = folder_.path("tiny.zem");
};

TEST_F(ServeCli, SaysWhereItListensAnswersAndEndsWithASignal) {
  ZEM_NEEDS_PLAIN_TERMINAL();
  TerminalProcess server(
      command({"serve", "-m", model_, "--port", "0", "-c", "64", "-t", "1", "--alias", "demo"}),
      cliEnvironment());
  ASSERT_TRUE(server.shows("model: demo, 64 tokens of context, 4 replies at the same time"));
  ASSERT_TRUE(server.shows("listening on http://127.0.0.1:"));
  const std::string address = "listening on http://127.0.0.1:";
  while (server.shown().find("\n", server.shown().find(address)) == std::string::npos) {
    server.shows("\n");
  }
  const std::string port = server.shown().substr(server.shown().find(address) + address.size());
  HttpClient client(static_cast<uint16_t>(std::stoi(port)));
  EXPECT_THAT(client.ask(HttpClient::get("/v1/models")).body, HasSubstr("\"demo\""));
  ASSERT_TRUE(server.shows("GET /v1/models 200"));
  server.send(SIGTERM);
  EXPECT_EQ(server.wait(), 0);
}

TEST_F(ServeCli, AddressForOthersNeedsAKey) {
  const ProcessResult result =
      zem({"serve", "-m", model_, "--host", "0.0.0.0", "--port", "0", "-c", "64"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("there is no key"));
}

TEST_F(ServeCli, AddressThatIsNoneIsNamed) {
  const ProcessResult result = zem({"serve", "-m", model_, "--host", "no.such.name.invalid"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("cannot listen on no.such.name.invalid port 8080"));
}

TEST_F(ServeCli, KeyFileWithoutKeysIsRefused) {
  const ProcessResult result = zem({"serve", "-m", model_, "--api-key-file", "/dev/null"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("holds no key"));
}

}  // namespace
}  // namespace zemtest
