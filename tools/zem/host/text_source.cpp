// SPDX-License-Identifier: Apache-2.0
#include "host/text_source.h"

#include <string_view>
#include <utility>

#include "console/terminal.h"
#include "engine/text/container_tokenizer.h"
#include "host/model_file.h"
#include "kiv/container/gguf.h"
#include "kiv/container/mapped_file.h"
#include "kiv/tokenizer.h"

namespace zemtool {
namespace {

using zem::text::ChatFormat;
using zem::text::Tokenizer;

constexpr const char* kJsonOrigin = "tokenizer.json";
constexpr const char* kGgufOrigin = "GGUF entries";

void require(const kiv::Status& status) {
  if (!status.ok()) throw Failure(status.message());
}

void requireOf(const std::string& path, const kiv::Status& status) {
  if (!status.ok()) throw Failure(path + ": " + status.message());
}

void map(const std::string& path, kiv::MappedFile& file) {
  requireReadable(path);
  require(file.open(path));
}

std::string_view textOf(const kiv::MappedFile& file) {
  return {reinterpret_cast<const char*>(file.data()), file.size()};
}

ExactTokenizer openGguf(const std::string& path) {
  kiv::GgufFile file;
  require(file.open(path));
  ExactTokenizer exact{{}, kGgufOrigin};
  requireOf(path, exact.tokenizer.loadGguf(file.values()));
  return exact;
}

ExactTokenizer openJson(const std::string& path) {
  kiv::MappedFile file;
  map(path, file);
  ExactTokenizer exact{{}, kJsonOrigin};
  requireOf(path, exact.tokenizer.loadJson(textOf(file)));
  return exact;
}

std::string ggufTemplate(const std::string& path) {
  kiv::GgufFile file;
  require(file.open(path));
  const kiv::GgufValue* value = file.find("tokenizer.chat_template");
  std::string_view text;
  return value != nullptr && value->getText(text) ? std::string(text) : std::string();
}

std::string containerTemplate(const std::string& path) {
  kiv::ZEM2Reader reader;
  openContainer(reader, path);
  kiv::TokenizerData data;
  return reader.readTokenizer(data) ? data.chatTemplate : std::string();
}

const ChatFormat& formatOfTemplate(const std::string& path, const std::string& text) {
  const ChatFormat* format = zem::text::chatFormatOfTemplate(text);
  if (format != nullptr) return *format;
  throw Failure("the chat template of " + path + " is " + zem::text::describeUnknownTemplate(text) +
                "; --chat-template NAME takes one of " + zem::text::chatFormatNames());
}

}  // namespace

TextSource textSourceOf(const std::string& path) {
  kiv::MappedFile file;
  map(path, file);
  const std::string_view text = textOf(file);
  if (text.starts_with("GGUF")) return TextSource::Gguf;
  const size_t first = text.substr(0, 4096).find_first_not_of(" \t\r\n");
  const bool isObject = first != std::string_view::npos && text[first] == '{';
  return isObject || path.ends_with(".json") ? TextSource::TokenizerJson : TextSource::Container;
}

std::optional<ExactTokenizer> openExactTokenizer(const std::string& path) {
  switch (textSourceOf(path)) {
    case TextSource::Gguf:
      return openGguf(path);
    case TextSource::TokenizerJson:
      return openJson(path);
    case TextSource::Container:
      break;
  }
  kiv::ZEM2Reader reader;
  openContainer(reader, path);
  try {
    return exactTokenizerOf(reader);
  } catch (const Failure& failure) {
    throw Failure(path + ": " + failure.what() + " (--plugin uses the plug-in's tokenizer)");
  }
}

std::optional<ExactTokenizer> exactTokenizerOf(const kiv::ZEM2Reader& reader) {
  std::optional<Tokenizer> tokenizer;
  require(zem::text::loadTokenizer(reader, tokenizer));
  if (!tokenizer) return {};
  std::string name;
  (void)reader.getMetaStr("tokenizer.source.name", name);
  return ExactTokenizer{*std::move(tokenizer), name == kJsonOrigin ? kJsonOrigin : kGgufOrigin};
}

std::string chatTemplateOf(const std::string& path) {
  switch (textSourceOf(path)) {
    case TextSource::Gguf:
      return ggufTemplate(path);
    case TextSource::TokenizerJson:
      return {};
    case TextSource::Container:
      break;
  }
  return containerTemplate(path);
}

const ChatFormat& chooseChatFormat(const ChatFormatOptions& options) {
  if (!options.name.empty()) {
    const ChatFormat* format = zem::text::chatFormatByName(options.name);
    if (format != nullptr) return *format;
    throw UsageError("--chat-template: \"" + options.name + "\" is none of " +
                     zem::text::chatFormatNames());
  }
  if (!options.templateFile.empty()) {
    kiv::MappedFile file;
    map(options.templateFile, file);
    return formatOfTemplate(options.templateFile, std::string(textOf(file)));
  }
  if (options.model.empty()) {
    throw UsageError(
        "a chat template is needed: -m MODEL, --chat-template-file FILE or --chat-template NAME");
  }
  const std::string text = chatTemplateOf(options.model);
  if (text.empty()) {
    throw Failure(options.model + " has no chat template; --chat-template NAME takes one of " +
                  zem::text::chatFormatNames());
  }
  return formatOfTemplate(options.model, text);
}

}  // namespace zemtool
