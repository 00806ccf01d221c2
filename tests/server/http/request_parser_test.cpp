// SPDX-License-Identifier: Apache-2.0
#include "server/http/request_parser.h"

#include <gtest/gtest.h>

#include <string>

namespace zem::server {
namespace {

constexpr RequestParser::Limits kLimits{256, 16};
const std::string kHead = "POST /a%20b?c=d?e HTTP/1.1\r\nHost: Me\r\nContent-Length: 5\r\n\r\n";

TEST(RequestParser, AnythingIsTakenByteByByteAsAtOnce) {
  for (const size_t piece : {size_t{1}, size_t{7}, kHead.size() + 5}) {
    RequestParser parser(kLimits);
    parser.wantBody();
    std::string rest = kHead + "hello";
    std::string pending;
    while (!rest.empty()) {
      pending += rest.substr(0, piece);
      rest.erase(0, piece);
      ASSERT_FALSE(parser.take(pending));
    }
    while (!pending.empty()) ASSERT_FALSE(parser.take(pending));
    ASSERT_TRUE(parser.isWhole()) << piece;
    HttpRequest head;
    parser.readHead(head);
    EXPECT_EQ(head.method, "POST");
    EXPECT_EQ(head.path, "/a%20b");
    EXPECT_EQ(head.query, "c=d?e");
    EXPECT_EQ(head.header("host"), "Me");
    EXPECT_EQ(parser.takeBody(), "hello");
  }
}

TEST(RequestParser, TakesNothingOfABodyThatIsNotWanted) {
  RequestParser parser(kLimits);
  std::string bytes = kHead + "hello";
  ASSERT_FALSE(parser.take(bytes));
  EXPECT_TRUE(parser.hasHeader());
  EXPECT_FALSE(parser.isWhole());
  EXPECT_EQ(bytes, "hello");
  EXPECT_EQ(parser.contentLength(), 5U);
}

TEST(RequestParser, LeavesTheNextRequestWhereItIs) {
  RequestParser parser(kLimits);
  const std::string get = "GET / HTTP/1.1\r\n\r\n";
  std::string bytes = get + get;
  ASSERT_FALSE(parser.take(bytes));
  EXPECT_TRUE(parser.isWhole());
  EXPECT_EQ(bytes, get);
}

TEST(RequestParser, SaysWhatItIsToldOfTheConnection) {
  struct Row {
    const char* head;
    bool keepsAlive;
    bool isOld;
    bool waits;
  };
  for (const Row& row : {Row{"GET / HTTP/1.1\r\n\r\n", true, false, false},
                         Row{"GET / HTTP/1.1\r\nConnection: close\r\n\r\n", false, false, false},
                         Row{"GET / HTTP/1.0\r\n\r\n", false, true, false},
                         Row{"GET / HTTP/1.0\r\nconnection: keep-alive\r\n\r\n", true, true, false},
                         Row{"PUT / HTTP/1.1\r\nExpect: 100-Continue\r\ncontent-length: 1\r\n\r\n",
                             true, false, true}}) {
    RequestParser parser(kLimits);
    std::string bytes = row.head;
    ASSERT_FALSE(parser.take(bytes)) << row.head;
    EXPECT_EQ(parser.keepsAlive(), row.keepsAlive) << row.head;
    EXPECT_EQ(parser.isOldVersion(), row.isOld) << row.head;
    EXPECT_EQ(parser.waitsForContinue(), row.waits) << row.head;
  }
}

TEST(RequestParser, RefusalsSayTheLimit) {
  struct Row {
    std::string bytes;
    int status;
    const char* text;
  };
  for (const Row& row :
       {Row{"GET / HTTP/1.1\r\nx: " + std::string(300, 'y') + "\r\n\r\n", 431, "256 bytes"},
        Row{"POST / HTTP/1.1\r\ncontent-length: 17\r\n\r\n", 413, "16 bytes"},
        Row{"\x16\x03\x01 no words\r\n\r\n", 400, "no request of HTTP/1.1"},
        Row{"POST / HTTP/1.1\r\ncontent-length: -1\r\n\r\n", 400, "no request of HTTP/1.1"}}) {
    RequestParser parser(kLimits);
    std::string bytes = row.bytes;
    const auto refusal = parser.take(bytes);
    ASSERT_TRUE(refusal) << row.bytes;
    EXPECT_EQ(refusal->status, row.status) << row.bytes;
    EXPECT_NE(refusal->message.find(row.text), std::string::npos) << refusal->message;
  }
}

TEST(RequestParser, PiecesTogetherAreLimited) {
  RequestParser parser(kLimits);
  parser.wantBody();
  std::string bytes = "POST / HTTP/1.1\r\ntransfer-encoding: chunked\r\n\r\n9\r\n123456789\r\n";
  for (int i = 0; i < 3; ++i) ASSERT_FALSE(parser.take(bytes));
  bytes += "9\r\n123456789\r\n";
  const auto refusal = parser.take(bytes);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->status, 413);
}

TEST(RequestParser, HalfAHeaderIsReadAsFarAsItCame) {
  RequestParser parser(kLimits);
  std::string bytes = "GET /x?y HTTP/1.1\r\nHost: me\r\nsecond: one";
  while (!parser.take(bytes) && bytes.size() > 20) {
  }
  EXPECT_FALSE(parser.hasHeader());
  HttpRequest head;
  parser.readHead(head);
  EXPECT_EQ(head.path, "/x");
}

}  // namespace
}  // namespace zem::server
