// SPDX-License-Identifier: Apache-2.0
// zem serve: a model for programs that speak HTTP.
#include <charconv>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "commands/options.h"
#include "commands/talk_options.h"
#include "console/terminal.h"
#include "console/text.h"
#include "server/server.h"

namespace zemtool {
namespace {

constexpr int kMostPort = 65535;
constexpr int kMostSequences = 256;
constexpr int kMostWaiting = 100000;
constexpr int kMostMib = 1 << 24;
constexpr int kMostSeconds = 7 * 24 * 3600;

struct ServeOptions {
  ModelOptions model;
  std::string host = "127.0.0.1";
  std::string name;
  std::string keyFile;
  std::string chatTemplate;
  std::string log = "text";
  std::vector<std::string> keys;
  std::vector<std::string> origins;
  int32_t port = 8080;
  int32_t sequences = 4;
  int32_t cacheMib = 1024;
  int32_t timeout = 600;
  int32_t waiting = 64;
  bool anybody = false;
  bool metrics = false;
  bool noPage = false;
};

// Each line of the file that has something else than blanks is a key.
std::vector<std::string> keysOf(const std::string& path) {
  std::vector<std::string> keys;
  std::istringstream lines(readWhole(path, "key file"));
  for (std::string line; std::getline(lines, line);) {
    const size_t begin = line.find_first_not_of(" \t\r");
    if (begin == std::string::npos) continue;
    keys.push_back(line.substr(begin, line.find_last_not_of(" \t\r") - begin + 1));
  }
  if (keys.empty()) throw Failure("the key file " + path + " holds no key");
  return keys;
}

std::vector<std::string> allKeys(const ServeOptions& options) {
  std::vector<std::string> keys = options.keys;
  if (!options.keyFile.empty()) {
    const std::vector<std::string> more = keysOf(options.keyFile);
    keys.insert(keys.end(), more.begin(), more.end());
  }
  const char* set = std::getenv("ZEM_API_KEY");
  if (set != nullptr && *set != '\0') keys.emplace_back(set);
  return keys;
}

zem::EngineOptions engineOptions(const ServeOptions& options) {
  zem::EngineOptions engine = settingsOf(options.model);
  engine.sequences = static_cast<size_t>(options.sequences);
  engine.waiting = static_cast<size_t>(options.waiting);
  engine.cacheBytes = static_cast<size_t>(options.cacheMib) << 20;
  engine.chatFormat = options.chatTemplate;
  return engine;
}

zem::server::ServerOptions serverOptions(const ServeOptions& options) {
  zem::server::ServerOptions server;
  server.transport.host = options.host;
  server.transport.port = static_cast<uint16_t>(options.port);
  server.name = options.name;
  server.keys = allKeys(options);
  server.origins = options.origins;
  server.hosts = {options.host};
  server.anyAddress = options.anybody;
  server.timeout = std::chrono::seconds(options.timeout);
  server.metrics = options.metrics;
  server.page = !options.noPage;
  server.logForm =
      options.log == "json" ? zem::server::LogForm::JsonLines : zem::server::LogForm::Plain;
  if (options.log != "none") server.log = [](const std::string& line) { remark(line); };
  return server;
}

void describeServer(const zem::Engine& engine, const zem::server::Server& server,
                    const ServeOptions& options) {
  const zem::ModelFacts& model = engine.model();
  const auto sequences = static_cast<size_t>(options.sequences);
  const size_t perReply = model.stateBytes + engine.context() * model.positionBytes;
  remark("model: " + server.name() + ", " + std::to_string(engine.context()) +
         " tokens of context, " + std::to_string(sequences) + " replies at the same time");
  remark("memory: " + formatBytes(model.weightBytes) + " of weights in the mapped file, at most " +
         formatBytes(sequences * perReply) + " for replies, at most " +
         formatBytes(static_cast<uint64_t>(options.cacheMib) << 20) + " for kept states");
  if (engine.chatFormat() == nullptr) {
    remark(
        "the model's chat template is none of the known revisions: only prompts are completed, "
        "and\n"
        "chats are refused; --chat-template names a revision");
  }
  writeOut("listening on http://" + server.address() + "\n");
  flushOut();
}

void serve(const ServeOptions& options) {
  const zem::server::ServerOptions settings = serverOptions(options);
  std::unique_ptr<zem::Engine> engine;
  kiv::Status status = zem::Engine::open(options.model.model, engineOptions(options), engine);
  if (!status.ok()) {
    throw Failure("cannot open the model " + options.model.model + ": " + status.message());
  }
  std::unique_ptr<zem::server::Server> server;
  status = zem::server::Server::open(*engine, settings, server);
  if (!status.ok()) throw Failure(status.message());
  describeServer(*engine, *server, options);
  server->run(/*signals=*/true);
}

void addAddressOptions(Command& command, ServeOptions& options) {
  command.heading("Who may ask");
  command.option("--host", options.host, "Address to listen on").showDefault().valueName("NAME");
  command.option("--port", options.port, "Port; 0: any free one")
      .showDefault()
      .wholeNumber(0, kMostPort)
      .valueName("N");
  command
      .option("--api-key", options.keys,
              "Answer only who sends this key (also: $ZEM_API_KEY, which others cannot see in "
              "the list of processes)")
      .valueName("KEY");
  command.option("--api-key-file", options.keyFile, "File with a key a line").valueName("FILE");
  command
      .option("--cors", options.origins,
              "Let pages of this origin ask, such as https://example.org; \"*\": all pages")
      .valueName("ORIGIN");
  command.flag("--anybody", options.anybody,
               "Listen without a key on an address that other machines reach");
}

void addEngineOptions(Command& command, ServeOptions& options) {
  command.heading("Replies");
  command.option("--sequences", options.sequences, "Replies at the same time; -np for short")
      .showDefault()
      .wholeNumber(1, kMostSequences)
      .valueName("N");
  command.option("--cache-mib", options.cacheMib, "Memory for states that later prompts go on from")
      .showDefault()
      .wholeNumber(0, kMostMib)
      .valueName("MIB");
  command
      .option("--chat-template", options.chatTemplate,
              "Revision of the chat template, in place of the model's")
      .valueName("NAME");
}

void addServiceOptions(Command& command, ServeOptions& options) {
  command.heading("Service");
  command.option("--alias", options.name, "Name of the model for clients (default: its file's)")
      .valueName("NAME");
  command.option("--timeout", options.timeout, "Seconds until a reply is given up; 0: never")
      .showDefault()
      .wholeNumber(0, kMostSeconds)
      .valueName("S");
  command.option("--max-queue", options.waiting, "Requests that may wait; more are told 429")
      .showDefault()
      .wholeNumber(0, kMostWaiting)
      .valueName("N");
  command.flag("--metrics", options.metrics, "Answer /metrics");
  command.flag("--no-page", options.noPage, "Leave the page at / out");
  command.option("--log", options.log, "A line for each request: text (default), json or none")
      .oneOf({"text", "json", "none"})
      .valueName("FORM");
}

}  // namespace

void addServe(Command& program, int& status) {
  auto options = std::make_shared<ServeOptions>();
  Command command =
      program.command("serve", "Answer programs and browsers over HTTP", "Talk to a model");
  addModelOptions(command, options->model);
  addAddressOptions(command, *options);
  addEngineOptions(command, *options);
  addServiceOptions(command, *options);
  command.footer(
      "Speaks the dialects of OpenAI (/v1/chat/completions, /v1/completions, /v1/responses),\n"
      "Anthropic (/v1/messages) and Ollama (/api/chat, /api/generate), and shows a page at /.\n"
      "Only programs of this machine can connect unless --host says otherwise; a key is needed\n"
      "then. The first Ctrl-C lets the replies that run come to their end, the second does not.\n"
      "\nExamples:\n"
      "  zem serve -m model.zem\n"
      "  ZEM_API_KEY=secret zem serve -m model.zem --host 0.0.0.0 -np 8");
  command.action([options, &status] { status = guarded([&] { serve(*options); }); });
}

}  // namespace zemtool
