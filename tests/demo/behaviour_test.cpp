// SPDX-License-Identifier: Apache-2.0
#include "demo/behaviour/behaviour.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/status_matchers.h"

namespace zem::behaviour {
namespace {

using testing::HasSubstr;
using zemtest::IsOk;

const std::string kQuestion =
    R"({"kind": "sum", "request": {"messages": [{"role": "user", "content": "1 + 1"}]}, )";

std::string messageOf(const std::string& cases) {
  std::vector<Case> read;
  return readCases(cases, read).message();
}

Reply said(const std::string& content) {
  Reply reply;
  reply.content = content;
  return reply;
}

Wanted wantedText(const std::string& content, const std::string& ends = "") {
  Wanted wanted;
  wanted.content = content;
  wanted.ends = ends;
  return wanted;
}

Wanted wantedAny(const std::vector<std::string>& any) {
  Wanted wanted;
  wanted.any = any;
  return wanted;
}

Wanted wantedThought(bool thinks) {
  Wanted wanted;
  wanted.thinks = thinks;
  return wanted;
}

Wanted wantedCall(const std::string& function, const std::string& arguments) {
  Wanted wanted;
  wanted.function = function;
  wanted.arguments = arguments;
  return wanted;
}

Reply called(const std::string& function, const std::string& arguments) {
  Reply reply;
  reply.functions = {function};
  reply.arguments = {arguments};
  return reply;
}

TEST(Cases, EachLineIsOne) {
  std::vector<Case> cases;
  const std::string lines =
      kQuestion + R"("wants": {"thinks": false, "content": "2", "ends": "."}})" + "\n\n" +
      kQuestion + R"("wants": {"thinks": true, "call": {"name": "f", "arguments": {"a": 1}}}})";
  ASSERT_THAT(readCases(lines, cases), IsOk());
  ASSERT_EQ(cases.size(), 2U);
  EXPECT_EQ(cases[0].kind, "sum");
  EXPECT_EQ(cases[0].wanted.content, "2");
  EXPECT_EQ(cases[0].wanted.ends, ".");
  EXPECT_FALSE(cases[0].wanted.thinks);
  EXPECT_TRUE(cases[1].wanted.thinks);
  EXPECT_EQ(cases[1].wanted.function, "f");
}

TEST(Cases, AnErrorNamesTheLine) {
  EXPECT_THAT(messageOf("\n{"), HasSubstr("line 2: "));
  EXPECT_THAT(messageOf("{}"), HasSubstr("line 1: needs \"kind\""));
  EXPECT_THAT(messageOf(kQuestion + R"("wants": {}})"), HasSubstr("\"thinks\""));
  EXPECT_THAT(messageOf(kQuestion + R"("wants": {"thinks": true, "call": {}}})"),
              HasSubstr("\"name\""));
}

TEST(Complaints, AReplyThatWasCutIsWrong) {
  Reply reply = said("2");
  reply.reason = EndReason::Length;
  EXPECT_THAT(complaintAbout(reply, wantedText("2")), HasSubstr("length"));
}

TEST(Complaints, ThinkingIsThereOrNotAsAsked) {
  Reply thoughtful = said("2");
  thoughtful.reasoning = "1 and 1.";
  EXPECT_EQ(complaintAbout(thoughtful, wantedThought(true)), "");
  EXPECT_EQ(complaintAbout(thoughtful, wantedThought(false)), "thinks");
  EXPECT_EQ(complaintAbout(said("2"), wantedThought(true)), "does not think");
  EXPECT_EQ(complaintAbout(said(""), {}), "says nothing");
}

TEST(Complaints, ContentIsLookedAtInFullAndAtItsEnd) {
  const Reply story = said("Once. The end.");
  EXPECT_EQ(complaintAbout(story, wantedText("Once", "The end.")), "");
  EXPECT_NE(complaintAbout(story, wantedText("Twice")), "");
  EXPECT_NE(complaintAbout(story, wantedText("", "Once.")), "");
  EXPECT_EQ(complaintAbout(story, wantedAny({"Twice", "Once"})), "");
  EXPECT_NE(complaintAbout(story, wantedAny({"Twice"})), "");
}

TEST(Complaints, ACallHasToBeTheOneThatIsWanted) {
  const Wanted wanted = wantedCall("add", R"({"a": 1, "b": 2})");
  EXPECT_EQ(complaintAbout(called("add", R"({"a":1,"b":2})"), wanted), "");
  EXPECT_NE(complaintAbout(called("sub", R"({"a":1,"b":2})"), wanted), "");
  EXPECT_NE(complaintAbout(called("add", R"({"a":1,"b":3})"), wanted), "");
  EXPECT_NE(complaintAbout(called("add", R"({"a":1)"), wanted), "");
  EXPECT_NE(complaintAbout(said("3"), wanted), "");
  EXPECT_NE(complaintAbout(called("add", "{}"), {}), "");
  Reply broken = called("add", R"({"a":1,"b":2})");
  broken.whole = false;
  EXPECT_NE(complaintAbout(broken, wanted), "");
  Reply twice = called("add", R"({"a":1,"b":2})");
  twice.functions.emplace_back("add");
  twice.arguments.emplace_back("{}");
  EXPECT_NE(complaintAbout(twice, wanted), "");
}

}  // namespace
}  // namespace zem::behaviour
