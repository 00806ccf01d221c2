// SPDX-License-Identifier: Apache-2.0
#include "engine/text/reply_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "engine/text/chat/python_text.h"
#include "engine/text/chat_message.h"
#include "engine/text/chat_renderer.h"
#include "engine/text/parsed_json.h"

namespace zem::text {
namespace {

using test::parsed;
using Kind = ReplyEvent::Kind;

std::vector<Json> typedTools() {
  return {parsed(R"({"type": "function", "function": {"name": "f", "parameters": {
      "type": "object", "properties": {
        "s": {"type": "string"}, "n": {"type": "integer"}, "o": {"type": "object"},
        "b": {"type": "boolean"}, "sn": {"type": ["string", "null"]}}}}})")};
}

// One event in brackets: R and C for text, ( for a call's begin, its arguments as they
// are, ) or the sign for a call that is not complete.
std::string shown(const std::vector<ReplyEvent>& events) {
  std::string text;
  for (const ReplyEvent& event : events) {
    switch (event.kind) {
      case Kind::Reasoning:
        text += "R[" + event.text + "]";
        break;
      case Kind::Content:
        text += "C[" + event.text + "]";
        break;
      case Kind::CallBegin:
        text += std::to_string(event.call) + "(" + event.text + " ";
        break;
      case Kind::CallArguments:
        text += event.text;
        break;
      case Kind::CallEnd:
        text += event.complete ? ")" : "!)";
        break;
    }
  }
  return text;
}

std::string read(const std::vector<std::string_view>& deltas, const ReplyOptions& options) {
  ReplyParser parser(options, ArgumentKinds(typedTools()));
  std::vector<ReplyEvent> events;
  for (const std::string_view delta : deltas) parser.feed(delta, events);
  parser.finish(events);
  EXPECT_EQ(parser.held(), 0U);
  return shown(events);
}

std::string read(std::string_view reply, bool thinking = false) {
  ReplyOptions options;
  options.thinking = thinking;
  return read({reply}, options);
}

std::string call(const std::string& inside) { return "<tool_call>\n" + inside + "\n</tool_call>"; }

struct Case {
  const char* name;
  bool thinking;
  std::string reply;
  std::string events;
};

std::vector<Case> cases() {
  const std::string f = "<function=f>\n";
  const std::string end = "\n</function>\n</tool_call>";
  return {
      {"empty", false, "", ""},
      {"content", false, "Hello <b>you</b>\n", "C[Hello <b>you</b>\n]"},
      {"newlines around content", false, "\n\nHello\n\n", "C[\n\nHello\n\n]"},
      {"newlines alone", false, "\n\n", "C[\n\n]"},
      {"unicode", true, "ä生😊</think>\n\n😊生ä", "R[ä生😊]C[😊生ä]"},
      {"thinking", true, "\nwhy\n\nso\n</think>\n\nBecause.\n", "R[why\n\nso]C[Because.\n]"},
      {"thinking cut", true, "why\n", "R[why\n]"},
      {"thinking cut in its end", true, "why\n</thi", "R[why\n</thi]"},
      {"thinking empty", true, "\n</think>\n\nA", "C[A]"},
      {"thinking, nothing else", true, "a</think>", "R[a]"},
      {"thinking begins itself", false, "<think>\na\n</think>\n\nb", "R[a]C[b]"},
      {"thinking begins twice", true, "<think>\na\n</think>\n\nb", "R[a]C[b]"},
      {"thinking ended at once", false, "</think>\n\nb", "C[b]"},
      {"thinking ended behind newlines", false, "\n\n</think>\n\nb", "C[b]"},
      {"thinking ended twice", true, "a</think>\n</think>\nb", "R[a]C[b]"},
      {"think tags later", false, "a <think>b</think>", "C[a <think>b</think>]"},
      {"begin tag inside thinking", true, "a<think>b</think>c", "R[a<think>b]C[c]"},
      {"end tag cut off", false, "a</think", "C[a</think]"},
      {"almost tags", true, "<thin</thin</think >a<</think>b<tool_call<tool_cal>",
       "R[<thin</thin</think >a<]C[b<tool_call<tool_cal>]"},
      {"call", false, call(f + "<parameter=s>\nx\n</parameter>\n</function>"),
       R"(0(f {"s": "x"}))"},
      {"call without parameters", false, call("<function=f>\n</function>"), "0(f {})"},
      {"call on one line", false,
       "<tool_call><function=f><parameter=s>x</parameter><parameter=n>1</parameter></function>"
       "</tool_call>",
       R"(0(f {"s": "x", "n": 1}))"},
      {"content around calls", false,
       "A\n\n" + call("<function=f>\n</function>") + "\n\nB\n" + call("<function=g>\n</function>") +
           "\n",
       "C[A]0(f {})C[B]1(g {})"},
      {"calls in a row", false,
       call("<function=f>\n</function>") + "\n" + call("<function=f>\n</function>"),
       "0(f {})1(f {})"},
      {"two functions in one call", false,
       call("<function=f>\n</function>\n<function=g></function>"), "0(f {})1(g {})"},
      {"call ends thinking", true, "hm\n" + call("<function=f>\n</function>"), "R[hm]0(f {})"},
      {"thinking ends behind a call", true, call("<function=f>\n</function>") + "\n</think>\n\na",
       "0(f {})C[a]"},
      {"value keeps inner newlines", false,
       call(f + "<parameter=s>\n\n  a\n\n b \n\n</parameter>\n</function>"),
       R"(0(f {"s": "\n  a\n\n b \n"}))"},
      {"value empty", false, call(f + "<parameter=s>\n\n</parameter>\n</function>"),
       R"(0(f {"s": ""}))"},
      {"value with one newline", false, call(f + "<parameter=s>\n</parameter>\n</function>"),
       R"(0(f {"s": ""}))"},
      {"value with tags", false,
       call(f +
            "<parameter=s>\n</p></parameter <parameter=n>\n<function=g>\n</function>\n</think>\n"
            "</parameter>\n</function>"),
       R"(0(f {"s": "</p></parameter <parameter=n>\n<function=g>\n</function>\n</think>"}))"},
      {"value to be escaped", false,
       call(f + "<parameter=s>\n\"\\\t\x01ä\n</parameter></function>"),
       R"(0(f {"s": "\"\\\t\u0001ä"}))"},
      {"text stays text", false,
       call(f + "<parameter=s>\n1\n</parameter>\n<parameter=sn>\n[1]\n</parameter></function>"),
       R"(0(f {"s": "1", "sn": "[1]"}))"},
      {"null where text may be null", false,
       call(f + "<parameter=sn>\nNone\n</parameter>\n<parameter=s>\nnull\n</parameter></function>"),
       R"(0(f {"sn": null, "s": "null"}))"},
      {"values of other types", false,
       call(f + "<parameter=n>\n 7 \n</parameter><parameter=b>\nTrue\n</parameter><parameter=o>\n"
                "{\"a\": [1.50, None]}\n</parameter></function>"),
       R"(0(f {"n": 7, "b": true, "o": {"a": [1.50, null]}}))"},
      {"values of other types that are none", false,
       call(f +
            "<parameter=n>\nseven\n</parameter><parameter=b>\nTrues\n</parameter><parameter=o>\n"
            "{\"a\": \n</parameter></function>"),
       R"(0(f {"n": "seven", "b": "Trues", "o": "{\"a\": "}))"},
      {"values of unknown types", false,
       call("<function=g>\n<parameter=a>\nFalse\n</parameter><parameter=b>\nx\n</"
            "parameter><parameter="
            "c>\n\"q\"\n</parameter></function>"),
       R"(0(g {"a": false, "b": "x", "c": "q"}))"},
      {"odd names", false,
       call("<function=my tool.v2>\n<parameter=a \"b\"\\>\n1\n</parameter>\n<parameter=>\n2\n"
            "</parameter></function>"),
       R"(0(my tool.v2 {"a \"b\"\\": 1, "": 2}))"},
      {"of a parameter twice the first counts", false,
       call(f + "<parameter=n>1</parameter><parameter=n>2</parameter></function>"),
       R"(0(f {"n": 1}))"},
      {"cut behind the tag", false, "A\n<tool_call>", "C[A]"},
      {"cut in the function's tag", false, "A\n<tool_call>\n<func", "C[A]"},
      {"cut in the function's name", false, "A\n<tool_call>\n<function=f", "C[A]"},
      {"cut behind the name", false, "<tool_call>\n<function=f>", "0(f {}!)"},
      {"cut in a parameter's name", false, "<tool_call>\n<function=f>\n<parameter=s", "0(f {}!)"},
      {"cut in text", false, "<tool_call>\n<function=f>\n<parameter=s>\nab\n</para",
       R"(0(f {"s": "ab"}!))"},
      {"cut before text", false, "<tool_call>\n<function=f>\n<parameter=s>", R"(0(f {"s": ""}!))"},
      {"cut in a number", false,
       "<tool_call>\n<function=f>\n<parameter=s>a</parameter><parameter=n>\n12",
       R"(0(f {"s": "a"}!))"},
      {"cut between parameters", false, "<tool_call>\n<function=f>\n<parameter=n>1</parameter>\n",
       R"(0(f {"n": 1}!))"},
      {"cut behind the function", false, "<tool_call>\n<function=f>\n</function>\n</tool_",
       "0(f {})"},
      {"no function", false, call("{\"name\": \"f\"}") + "\nB", "C[{\"name\": \"f\"}]C[B]"},
      {"nothing inside", false, call("") + "A", "C[A]"},
      {"no name", false, call("<function=>\n<parameter=a>1</parameter></function>"),
       "C[<function=>\n<parameter=a>1</parameter></function>]"},
      {"name over lines", false, call("<function=f\n>x"), "C[<function=f\n>x]"},
      {"long name", false, call("<function=" + std::string(200, 'n') + ">"),
       "C[<function=" + std::string(200, 'n') + ">]"},
      {"long parameter", false,
       call(f + "<parameter=" + std::string(200, 'n') + ">1</parameter></function>"), "0(f {}!)"},
      {"parameter's name over lines", false, call(f + "<parameter=\nn>1</parameter></function>"),
       "0(f {}!)"},
      {"text between tags", false, call(f + "so: <parameter=n>1</parameter>\n</function>"),
       R"(0(f {"n": 1}!))"},
      {"parameter not closed", false, "<tool_call>\n" + f + "<parameter=s>\nx" + end + "\nB",
       R"(0(f {"s": "x"}!)C[B])"},
      {"parameter and function not closed", false,
       "<tool_call>\n" + f + "<parameter=n>\n1\n</tool_call>B", R"(0(f {"n": 1}!)C[B])"},
      {"function not closed", false, call("<function=f><parameter=n>1</parameter>") + "B",
       R"(0(f {"n": 1})C[B])"},
      {"call not closed", false, "<tool_call><function=f></function>\nB", "0(f {})C[B]"},
      {"call not closed before another", false,
       "<tool_call><function=f>" + call("<function=g></function>"), "0(f {}!)1(g {})"},
      {"call inside a call", false, "<tool_call><tool_call><function=f></function></tool_call>",
       "0(f {})"},
      {"tags without a call", false, "<function=f></function></tool_call>",
       "C[<function=f></function></tool_call>]"},
  };
}

// The texts of content behind a call are two events that may stand next to each other.
std::string joinedContent(std::string text) {
  for (size_t at = 0; (at = text.find("]C[", at)) != std::string::npos;) text.erase(at, 3);
  return text;
}

TEST(ReplyParser, TakesRepliesApart) {
  for (const Case& c : cases()) {
    EXPECT_EQ(joinedContent(read(c.reply, c.thinking)), joinedContent(c.events)) << c.name;
  }
}

TEST(ReplyParser, EverySplitGivesTheSameEvents) {
  for (const Case& c : cases()) {
    ReplyOptions options;
    options.thinking = c.thinking;
    const std::string_view reply = c.reply;
    const std::string whole = read({reply}, options);
    for (size_t at = 0; at <= reply.size(); ++at) {
      EXPECT_EQ(read({reply.substr(0, at), reply.substr(at)}, options), whole) << c.name << at;
    }
    std::vector<std::string_view> bytes;
    for (size_t at = 0; at < reply.size(); ++at) bytes.push_back(reply.substr(at, 1));
    EXPECT_EQ(read(bytes, options), whole) << c.name;
    std::mt19937 random(7);
    for (int round = 0; round < 20; ++round) {
      std::vector<std::string_view> deltas;
      for (size_t at = 0; at < reply.size();) {
        const size_t length = random() % 12;
        deltas.push_back(reply.substr(at, length));
        at += length;
      }
      EXPECT_EQ(read(deltas, options), whole) << c.name;
    }
  }
}

// A reply that is cut anywhere has whole JSON in every call that it began.
TEST(ReplyParser, EveryPrefixGivesValidArguments) {
  for (const Case& c : cases()) {
    for (size_t length = 0; length <= c.reply.size(); ++length) {
      std::vector<ReplyEvent> events;
      ReplyParser parser({}, ArgumentKinds(typedTools()));
      parser.feed(std::string_view(c.reply).substr(0, length), events);
      parser.finish(events);
      std::string arguments;
      for (const ReplyEvent& event : events) {
        if (event.kind == Kind::CallBegin) arguments.clear();
        if (event.kind == Kind::CallArguments) arguments += event.text;
        // A cut inside a character leaves a part of it.
        if (event.kind == Kind::CallEnd && arguments.find("ä") == std::string::npos &&
            arguments.find('\xC3') == std::string::npos) {
          EXPECT_TRUE(parsed(arguments).is_object()) << c.name << arguments;
        }
      }
    }
  }
}

// What the model saw of a reply in a prompt is what the model would have had to say.
TEST(ReplyParser, ReadsBackWhatTheRendererWrites) {
  const Json arguments = parsed(R"({"s": "a\n\n \"b\"\n", "n": -7, "b": true, "sn": null,
                                    "o": {"x": [1.0, "y", false, null]}, "other": [], "f": 1e16})");
  Message reply;
  reply.role = Role::Assistant;
  reply.content.push_back({ContentPart::Kind::Text, "Let me see."});
  reply.reasoning = "Two calls.";
  reply.calls = {{"f", arguments}, {"g", Json::object()}};
  Message question;
  question.content.push_back({ContentPart::Kind::Text, "?"});
  RenderOptions options;
  options.openReply = false;
  RenderedChat chat;
  ASSERT_TRUE(renderChat(*chatFormatByName("qwen3.5"), {question, reply}, {}, options, chat).ok());
  const std::string prompt = chat.text();
  const std::string begin = "<|im_start|>assistant\n<think>\n";
  const size_t from = prompt.find(begin) + begin.size();
  const std::string text = prompt.substr(from, prompt.rfind("<|im_end|>") - from);
  EXPECT_EQ(read(text, true),
            "R[Two calls.]C[Let me see.]0(f " + pythonJson(arguments) + ")1(g {})");
}

TEST(ReplyParser, EventsComeAsSoonAsTheyAreDecided) {
  ReplyParser parser({}, ArgumentKinds(typedTools()));
  std::vector<ReplyEvent> events;
  const auto feed = [&](std::string_view delta) {
    events.clear();
    parser.feed(delta, events);
    return shown(events);
  };
  EXPECT_EQ(feed("Hel"), "C[Hel]");
  EXPECT_EQ(feed("lo\n"), "C[lo]");
  EXPECT_EQ(feed("\n<tool"), "");
  EXPECT_EQ(feed("_call>\n<function=f"), "");
  EXPECT_EQ(feed(">"), "0(f ");
  EXPECT_EQ(feed("\n<parameter=s>"), R"({"s": ")");
  EXPECT_EQ(feed("\nlong te"), "long te");
  EXPECT_EQ(feed("xt\n"), "xt");
  EXPECT_EQ(feed("</parameter>"), "\"");
  EXPECT_EQ(feed("\n<parameter=n>\n1"), "");
  EXPECT_EQ(feed("2\n</parameter>"), R"(, "n": 12)");
  EXPECT_EQ(feed("\n</function>"), "})");
  EXPECT_EQ(feed("\n</tool_call>"), "");
}

TEST(ReplyParser, SaysWhetherItIsThinking) {
  ReplyOptions options;
  options.thinking = true;
  ReplyParser parser(options);
  std::vector<ReplyEvent> events;
  EXPECT_TRUE(parser.thinking());
  parser.feed("a</think", events);
  EXPECT_TRUE(parser.thinking());
  parser.feed(">", events);
  EXPECT_FALSE(parser.thinking());
}

TEST(ReplyParser, WithoutCallsTheirTagsAreText) {
  ReplyOptions options;
  options.calls = false;
  EXPECT_EQ(read({"a\n<tool_call>\n<function=f>"}, options), "C[a\n<tool_call>\n<function=f>]");
}

TEST(ReplyParser, NothingComesBehindTheEnd) {
  ReplyParser parser;
  std::vector<ReplyEvent> events;
  parser.feed("a", events);
  parser.finish(events);
  events.clear();
  parser.feed("b", events);
  parser.finish(events);
  EXPECT_TRUE(events.empty());
}

TEST(ReplyParser, AnArgumentTooLongToHoldIsText) {
  ReplyOptions options;
  options.longestHeldArgument = 8;
  const auto reply = [](const std::string& value) {
    return call("<function=f><parameter=n>" + value + "</parameter></function>");
  };
  EXPECT_EQ(read({reply("12345678")}, options), R"(0(f {"n": 12345678}))");
  EXPECT_EQ(read({reply("123456789")}, options), R"(0(f {"n": "123456789"}))");
  const std::string longer = reply("123456789");
  std::vector<std::string_view> bytes;
  for (size_t at = 0; at < longer.size(); ++at)
    bytes.push_back(std::string_view(longer).substr(at, 1));
  EXPECT_EQ(read(bytes, options), R"(0(f {"n": "123456789"}))");
}

TEST(ReplyParser, ArgumentsBeyondAThousandAreDropped) {
  std::string inside = "<function=g>";
  for (int i = 0; i < 1500; ++i) inside += "<parameter=" + std::to_string(i) + ">1</parameter>";
  std::vector<ReplyEvent> events;
  ReplyParser parser;
  parser.feed(call(inside + "</function>"), events);
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(parsed(events[1].text).size(), 1024U);
  EXPECT_FALSE(events[2].complete);
}

// What repeats for ever neither piles up nor makes each byte dearer: these take a
// moment, and would take hours if every delta looked at all that came before.
TEST(ReplyParser, HostileRepliesAreHeldBackInBounds) {
  const char* patterns[] = {"\n",
                            "<",
                            "</think",
                            "<tool_call>",
                            "<tool_call>\n<function=",
                            "<tool_call><function=f>",
                            "<tool_call><function=f><parameter=s>\n</parameter",
                            "</function>\n</tool_call",
                            "<tool_call><function=f><parameter=n>"};
  for (const std::string_view pattern : patterns) {
    ReplyOptions options;
    options.longestHeldArgument = 1000;
    ReplyParser parser(options, ArgumentKinds(typedTools()));
    std::vector<ReplyEvent> events;
    size_t most = 0;
    for (size_t i = 0; i < 1000000; ++i) {
      parser.feed(pattern.substr(i % pattern.size(), 1), events);
      most = std::max(most, parser.held());
      if (events.size() > 100) events.clear();
    }
    EXPECT_LE(most, 1256U) << pattern;
    parser.finish(events);
  }
}

TEST(ReplyParser, NamesThatNeverEndAreNotHeld) {
  for (const char* begin : {"<tool_call><function=", "<tool_call><function=f><parameter="}) {
    ReplyParser parser;
    std::vector<ReplyEvent> events;
    parser.feed(begin, events);
    for (int i = 0; i < 1000; ++i) {
      parser.feed("n", events);
      EXPECT_LE(parser.held(), 256U);
    }
  }
}

}  // namespace
}  // namespace zem::text
