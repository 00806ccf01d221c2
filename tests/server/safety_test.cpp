// SPDX-License-Identifier: Apache-2.0
#include "server/safety.h"

#include <gtest/gtest.h>

#include "server/access_log.h"

namespace zem::server {
namespace {

TEST(Safety, LocalOriginsAreComparedExactly) {
  for (const char* origin : {"http://localhost", "https://localhost:3000", "http://127.0.0.1:80",
                             "http://[::1]:1", "http://app.localhost", "http://LOCALHOST"}) {
    EXPECT_TRUE(isLocalOrigin(origin)) << origin;
  }
  for (const char* origin :
       {"", "null", "localhost", "http://localhost.evil.com", "http://evillocalhost",
        "http://127.0.0.1.evil.com", "http://localhost:x", "http://localhost:80:80",
        "http://localhost:", "file://localhost", "http://localhost/", "http://[::1",
        "http://[::1].evil.com", "http://localhost@evil.com", "http://127.0.0.11"}) {
    EXPECT_FALSE(isLocalOrigin(origin)) << origin;
  }
}

TEST(Safety, OriginsMayBeAllowedOrTheServersOwn) {
  EXPECT_TRUE(mayAsk("https://a.org", "x", {"https://a.org"}));
  EXPECT_FALSE(mayAsk("https://a.org.evil.com", "x", {"https://a.org"}));
  EXPECT_TRUE(mayAsk("https://b.org", "x", {"*"}));
  EXPECT_TRUE(mayAsk("http://192.168.1.5:8080", "192.168.1.5:8080", {}));
  EXPECT_FALSE(mayAsk("http://192.168.1.5", "192.168.1.5:8080", {}));
  EXPECT_FALSE(mayAsk("http://", "", {}));
}

TEST(Safety, HostsNameThisMachine) {
  for (const char* host : {"localhost", "localhost:8080", "127.0.0.1", "[::1]:8080", "my.name:1"}) {
    EXPECT_TRUE(namesThisMachine(host, {"My.Name"})) << host;
  }
  for (const char* host : {"", "evil.com", "localhost.evil.com", "localhost:x", "[::1", "::1"}) {
    EXPECT_FALSE(namesThisMachine(host, {"my.name"})) << host;
  }
}

TEST(Safety, KeysAreComparedWhole) {
  const std::vector<std::string> keys = {"abc", "defgh"};
  EXPECT_TRUE(isKnownKey("abc", keys));
  EXPECT_TRUE(isKnownKey("defgh", keys));
  for (const char* wrong : {"", "ab", "abcd", "abcabc", "abd", "ABC"}) {
    EXPECT_FALSE(isKnownKey(wrong, keys)) << wrong;
  }
  EXPECT_FALSE(isKnownKey("", {""}));
  EXPECT_EQ(keyOf("Bearer abc", "other"), "abc");
  EXPECT_EQ(keyOf("bearer  abc", ""), "abc");
  EXPECT_EQ(keyOf("Basic abc", "other"), "other");
}

TEST(AccessLog, HoldsNoControlCharacters) {
  HttpRequest request;
  request.method = "GET";
  request.path = "/a\x1b[31m\n";
  request.peer = "::1";
  request.id = "req_1";
  const AccessRecord record{&request, 404, 12, false, 0.0123};
  EXPECT_EQ(accessLine(record, LogForm::Plain, 0),
            "1970-01-01T00:00:00Z ::1 GET /a?[31m? 404 12 B 12.3 ms req_1 cut off");
  EXPECT_EQ(accessLine(record, LogForm::JsonLines, 0).find('\n'), std::string::npos);
}

}  // namespace
}  // namespace zem::server
