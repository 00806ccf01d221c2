// SPDX-License-Identifier: Apache-2.0
// engine_cpp MODEL TEXT: streams what follows a text, with libzem. Handles that close themselves
// and errors as exceptions are all that C++ adds.
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "zem/engine.h"

namespace {

void require(zem_code code) {
  if (code != ZEM_OK) throw std::runtime_error(zem_last_error());
}

struct Close {
  void operator()(zem_engine engine) const {
    zem_engine_cancel_all(engine);  // an engine with requests under way stays open
    zem_engine_close(engine);
  }
  void operator()(zem_request request) const { zem_request_close(request); }
};
using Engine = std::unique_ptr<std::remove_pointer_t<zem_engine>, Close>;
using Request = std::unique_ptr<std::remove_pointer_t<zem_request>, Close>;

Engine open(const char* path) {
  zem_engine engine = nullptr;
  require(zem_engine_open(path, nullptr, &engine));
  return Engine(engine);
}

Request complete(const Engine& engine, const char* text) {
  zem_completion what{};
  what.struct_size = sizeof what;
  what.prompt = text;
  what.prompt_size = ZEM_TERMINATED;
  what.settings = R"({"max_tokens": 200, "temperature": 0.7})";
  zem_request request = nullptr;
  require(zem_engine_complete(engine.get(), &what, nullptr, &request));
  return Request(request);
}

void print(const Request& request) {
  zem_event event{};
  event.struct_size = sizeof event;
  while (event.kind != ZEM_EVENT_END) {
    require(zem_request_next(request.get(), ZEM_FOREVER, &event));
    if (event.kind == ZEM_EVENT_CONTENT) std::cout << event.text << std::flush;
  }
  std::cout << '\n';
  if (event.end_reason == ZEM_END_ERROR) throw std::runtime_error(event.text);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: engine_cpp MODEL TEXT\n";
    return 2;
  }
  try {
    const Engine engine = open(argv[1]);
    print(complete(engine, argv[2]));
  } catch (const std::exception& error) {
    std::cerr << "engine_cpp: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
