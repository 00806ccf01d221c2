// SPDX-License-Identifier: Apache-2.0
#include "server/http/request_parser.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <iterator>
#include <utility>

namespace zem::server {
namespace {

namespace http = boost::beast::http;

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

}  // namespace

struct RequestParser::Impl {
  Limits limits;
  http::request_parser<http::string_body> parser;

  Refusal refusalOf(boost::system::error_code error) const {
    if (error == http::error::header_limit) {
      return {431,
              "the header of a request may have " + std::to_string(limits.headerBytes) + " bytes"};
    }
    if (error == http::error::body_limit) {
      return {413, "the body of a request may have " + std::to_string(limits.bodyBytes) + " bytes"};
    }
    return {400, "this is no request of HTTP/1.1: " + error.message()};
  }

  // With another encoding the end of the body is not known.
  bool hasKnownEncoding() const {
    const auto [begin, end] = parser.get().equal_range(http::field::transfer_encoding);
    return begin == end || (std::next(begin) == end && lowerCase(begin->value()) == "chunked");
  }
};

RequestParser::RequestParser(const Limits& limits) : impl_(std::make_unique<Impl>()) {
  impl_->limits = limits;
  impl_->parser.header_limit(limits.headerBytes);
  impl_->parser.body_limit(limits.bodyBytes);
  impl_->parser.eager(false);  // stops behind the header
}
RequestParser::~RequestParser() = default;

std::optional<RequestParser::Refusal> RequestParser::take(std::string& bytes) {
  boost::system::error_code error;
  const size_t used = impl_->parser.put(boost::asio::buffer(std::as_const(bytes)), error);
  bytes.erase(0, used);
  if (error && error != http::error::need_more) return impl_->refusalOf(error);
  if (hasHeader() && !impl_->hasKnownEncoding()) {
    return Refusal{400, "the header \"transfer-encoding\" may say chunked and nothing else"};
  }
  // Of a body, only what stands between its pieces or behind them is ever left.
  if (error && hasHeader() && bytes.size() > impl_->limits.headerBytes) {
    return Refusal{431, "a line between the pieces of a body may have " +
                            std::to_string(impl_->limits.headerBytes) + " bytes"};
  }
  return std::nullopt;
}

void RequestParser::wantBody() { impl_->parser.eager(true); }

bool RequestParser::hasHeader() const { return impl_->parser.is_header_done(); }
bool RequestParser::isWhole() const { return impl_->parser.is_done(); }

void RequestParser::readHead(HttpRequest& out) const {
  const auto& message = impl_->parser.get();
  const std::string target(message.target());
  const size_t query = target.find('?');
  out.method = std::string(message.method_string());
  out.path = target.substr(0, query);
  out.query = query == std::string::npos ? std::string() : target.substr(query + 1);
  out.headers.clear();
  for (const auto& field : message) {
    out.headers.emplace_back(lowerCase(field.name_string()), std::string(field.value()));
  }
}

std::optional<uint64_t> RequestParser::contentLength() const {
  const auto length = impl_->parser.content_length();
  return length ? std::optional<uint64_t>(*length) : std::nullopt;
}

bool RequestParser::keepsAlive() const { return impl_->parser.get().keep_alive(); }
bool RequestParser::isOldVersion() const { return impl_->parser.get().version() < 11; }

bool RequestParser::waitsForContinue() const {
  return lowerCase(impl_->parser.get()[http::field::expect]) == "100-continue";
}

std::string RequestParser::takeBody() { return std::move(impl_->parser.get().body()); }

}  // namespace zem::server
