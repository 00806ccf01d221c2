// SPDX-License-Identifier: Apache-2.0
#include "server/http/answer_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zem::server {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

TEST(AnswerText, HeadHasEachLineOnce) {
  const HttpReply reply{200, "text/plain", {{"etag", "x"}}, "ignored"};
  EXPECT_THAT(answerHead(reply, "req_1", {7, false, true}),
              MatchesRegex("HTTP/1\\.1 200 OK\r\ndate: [A-Z][a-z]+, [0-9]+ [A-Z][a-z]+ [0-9]+ "
                           "[0-9:]+ GMT\r\ncontent-type: text/plain\r\netag: x\r\n"
                           "x-request-id: req_1\r\ncontent-length: 7\r\n"
                           "connection: keep-alive\r\n\r\n"));
}

TEST(AnswerText, LengthAndPiecesExcludeEachOther) {
  const HttpReply reply;
  EXPECT_THAT(answerHead(reply, "", {std::nullopt, true, true}), Not(HasSubstr("content-length")));
  EXPECT_THAT(answerHead(reply, "", {0, false, false}), HasSubstr("content-length: 0\r\n"));
  EXPECT_THAT(answerHead(reply, "", {0, false, false}), HasSubstr("connection: close\r\n"));
  // An old client reads up to the end of the connection.
  const std::string neither = answerHead(reply, "", {std::nullopt, false, false});
  EXPECT_THAT(neither, Not(HasSubstr("content-length")));
  EXPECT_THAT(neither, Not(HasSubstr("transfer-encoding")));
}

TEST(AnswerText, AnswersThatHaveNoBodyHaveNoLength) {
  for (const int status : {204, 304}) {
    const HttpReply reply{status, "", {}, {}};
    const std::string head = answerHead(reply, "", {0, false, true});
    EXPECT_THAT(head, Not(HasSubstr("content-length"))) << status;
    EXPECT_THAT(head, Not(HasSubstr("content-type"))) << status;
  }
}

TEST(AnswerText, NoValueBeginsALineOfItsOwn) {
  const HttpReply reply{200, "a\r\nb: c", {{"d", std::string("e\n\r\0f", 5)}}, {}};
  const std::string head = answerHead(reply, "g\r\n\r\nh", {0, false, true});
  EXPECT_THAT(head, HasSubstr("content-type: ab: c\r\nd: ef\r\nx-request-id: gh\r\n"));
}

TEST(AnswerText, PiecesSayTheirLengthInHexadecimal) {
  EXPECT_EQ(pieceOf(std::string(26, 'x')), "1a\r\n" + std::string(26, 'x') + "\r\n");
  EXPECT_EQ(pieceOf(""), kLastPiece);
}

}  // namespace
}  // namespace zem::server
