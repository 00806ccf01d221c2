// SPDX-License-Identifier: Apache-2.0
// zem render: chat requests as prompts.
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>

#include "commands/commands.h"
#include "commands/options.h"
#include "console/streams.h"
#include "console/terminal.h"
#include "console/text.h"
#include "engine/text/render_request.h"
#include "host/text_source.h"

namespace zemtool {
namespace {

using zem::text::ChatFormat;
using zem::text::RenderedChat;
using zem::text::Segment;

struct RenderOptions {
  std::string file;
  ChatFormatOptions format;
  bool segments = false;
  bool lines = false;
};

std::string quoted(const std::string& text) {
  // A terminal would obey some of the characters beyond ASCII.
  return nlohmann::ordered_json(text).dump(-1, ' ', stdoutIsTerminal());
}

void printSegments(const RenderedChat& chat) {
  std::vector<std::vector<std::string>> rows;
  for (const Segment& segment : chat.segments) {
    rows.push_back({segment.control ? "control" : "text", quoted(segment.text)});
  }
  writeOut(formatTable(rows));
}

void renderOne(const std::string& file, const ChatFormat& format, bool segments) {
  const std::string request = readWhole(file, "request file");
  RenderedChat chat;
  const kiv::Status status = zem::text::renderRequest(request, format, chat);
  if (!status.ok()) throw Failure((file == "-" ? "" : file + ": ") + status.message());
  if (segments) {
    printSegments(chat);
  } else {
    writeExact(chat.text());
  }
}

// Answers one request a line, each before the next is read.
class LineRenderer {
 public:
  explicit LineRenderer(const ChatFormat& format) : format_(format) {}

  void take(std::string_view line) {
    ++lines_;
    RenderedChat chat;
    const kiv::Status status = zem::text::renderRequest(line, format_, chat);
    if (!status.ok()) ++failed_;
    const std::string answer =
        status.ok() ? quoted(chat.text()) : "{\"error\": " + quoted(status.message()) + "}";
    writeOut(answer + "\n");
    flushOut();
  }

  void finish() const {
    if (failed_ == 0) return;
    throw Failure(std::to_string(failed_) + " of " + std::to_string(lines_) +
                  (lines_ == 1 ? " request" : " requests") + " failed");
  }

 private:
  const ChatFormat& format_;
  size_t lines_ = 0;
  size_t failed_ = 0;
};

void renderFile(const std::string& path, LineRenderer& renderer) {
  const std::string text = readWhole(path, "request file");
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t end = rest.find('\n');
    renderer.take(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
}

void renderLines(const std::string& file, const ChatFormat& format) {
  LineRenderer renderer(format);
  if (file == "-") {
    std::string line;
    while (readLine(line) == Input::Line) renderer.take(line);
  } else {
    renderFile(file, renderer);
  }
  renderer.finish();
}

void render(RenderOptions options) {
  if (options.file.empty()) {
    if (stdinIsTerminal()) {
      throw UsageError("a request is needed: FILE, or a pipe on standard input");
    }
    options.file = "-";
  }
  const ChatFormat& format = chooseChatFormat(options.format);
  if (options.lines) {
    renderLines(options.file, format);
  } else {
    renderOne(options.file, format, options.segments);
  }
}

}  // namespace

void addRender(Command& program, int& status) {
  auto options = std::make_shared<RenderOptions>();
  Command command =
      program.command("render", "Show the prompt of a chat request", "Examine models");
  command.option("file", options->file, "Request, - for standard input; without it a pipe is read")
      .valueName("FILE");
  command.option("-m,--model", options->format.model, "Model file (.zem or .gguf) with a template")
      .valueName("FILE");
  command
      .option("--chat-template-file", options->format.templateFile,
              "Chat template, in place of the model's")
      .valueName("FILE");
  command
      .option("--chat-template", options->format.name,
              "Revision of the template, in place of both: " + zem::text::chatFormatNames())
      .valueName("NAME");
  const Option segments = command.flag("--segments", options->segments,
                                       "Show which parts may hold control tokens, one a line");
  command
      .flag("--lines", options->lines,
            "Every line is a request; print a line of JSON for each: the prompt, or an error")
      .excludes(segments);
  command.footer(
      "A request is a JSON object with \"messages\", and maybe with \"tools\", "
      "\"enable_thinking\",\n"
      "\"preserve_thinking\", \"reasoning_effort\", \"add_generation_prompt\", \"add_vision_id\",\n"
      "\"merge_system\", \"omit_empty_thinking\" and \"chat_template\"; other members are "
      "ignored.\n"
      "A file or a pipe gets the prompt byte by byte, with no line feed added. A prompt often "
      "ends\n"
      "in one, so keep it: `zem render ... | zem tokenize --keep-newline ...`. What --segments\n"
      "calls text came from a client: control tokens in it are not recognised. With --lines an\n"
      "error is {\"error\": \"what is wrong\"}, and the exit status is 1 if any line had one.\n"
      "\nExamples:\n"
      "  zem render request.json -m model.zem\n"
      "  zem render requests.jsonl --lines --chat-template-file chat_template.jinja\n"
      "  echo '{\"messages\": [{\"role\": \"user\", \"content\": \"Hi\"}]}' |\n"
      "    zem render --chat-template qwen3.5");
  command.action([options, &status] { status = guarded([&] { render(*options); }); });
}

}  // namespace zemtool
