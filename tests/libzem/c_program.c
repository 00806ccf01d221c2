/* SPDX-License-Identifier: Apache-2.0
 * c_program MODEL: uses the library as a program in C does, and fails with a line where
 * something is not as the header says. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "zem/engine.h"

static void require(int holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "c_program: %s: %s\n", what, zem_last_error());
  exit(1);
}

static zem_engine open_engine(const char* path) {
  zem_engine_options options = {.struct_size = sizeof options, .threads = 1};
  zem_engine engine = NULL;
  require(zem_engine_open(path, &options, &engine) == ZEM_OK, "the model opens");
  return engine;
}

static void check_description(zem_engine engine) {
  zem_description model = {.struct_size = sizeof model};
  require(zem_engine_describe(engine, &model) == ZEM_OK, "the model is described");
  require(model.vocabulary > 0 && model.context > 0 && strlen(model.name) > 0,
          "the description has the model's facts");
}

/* The events of a whole reply; gives the bytes of its pieces. */
static size_t read_reply(zem_request request) {
  zem_event event = {.struct_size = sizeof event};
  size_t bytes = 0;
  zem_code code = ZEM_OK;
  while ((code = zem_request_next(request, ZEM_FOREVER, &event)) == ZEM_OK) {
    require(event.text != NULL && event.text[event.text_size] == '\0', "texts end with a NUL");
    if (event.kind == ZEM_EVENT_REASONING || event.kind == ZEM_EVENT_CONTENT) {
      bytes += event.text_size;
    }
    if (event.kind == ZEM_EVENT_END) {
      require(event.end_reason == ZEM_END_LENGTH && event.usage.generated_tokens == 8,
              "the reply has the tokens that were asked for");
    }
  }
  require(code == ZEM_FINISHED, "the reply ends");
  require(zem_request_close(request) == ZEM_OK, "the request closes");
  require(zem_request_close(request) == ZEM_ERROR_HANDLE, "it closes once");
  return bytes;
}

static void check_completion(zem_engine engine) {
  zem_completion what = {
      .struct_size = sizeof what,
      .prompt = "Once",
      .prompt_size = ZEM_TERMINATED,
      .settings =
          "{\"max_tokens\": 8, \"seed\": 1, \"logit_bias\": {\"256\": -100, \"258\": -100}}"};
  zem_request request = NULL;
  require(zem_engine_complete(engine, &what, NULL, &request) == ZEM_OK, "a completion begins");
  require(read_reply(request) > 0, "a completion has a text");
}

static void check_chat(zem_engine engine) {
  const char* json =
      "{\"messages\": [{\"role\": \"user\", \"content\": \"Hi\"}], \"max_tokens\": 8,"
      " \"seed\": 1, \"logit_bias\": {\"256\": -100, \"258\": -100}}";
  zem_request request = NULL;
  require(zem_engine_chat(engine, json, ZEM_TERMINATED, NULL, &request) == ZEM_OK, "a chat begins");
  require(read_reply(request) > 0, "a chat has a reply");
}

/* What the child of a fork may do, while the parent computes. */
static void use_in_child(const char* path, zem_engine of_parent, zem_request asked_by_parent) {
  zem_event event = {.struct_size = sizeof event};
  zem_description model = {.struct_size = sizeof model};
  require(zem_engine_describe(of_parent, &model) == ZEM_ERROR_HANDLE, "the engine stays behind");
  require(zem_request_next(asked_by_parent, ZEM_FOREVER, &event) == ZEM_ERROR_HANDLE,
          "so does the request");
  require(zem_engine_cancel_all(of_parent) == ZEM_ERROR_HANDLE, "nothing is waited for");
  require(zem_engine_close(of_parent) == ZEM_ERROR_HANDLE, "nothing is closed");
  zem_engine engine = open_engine(path);
  check_chat(engine);
  require(zem_engine_close(engine) == ZEM_OK, "the child's engine closes");
}

static void check_fork(const char* path, zem_engine engine) {
  zem_completion what = {
      .struct_size = sizeof what,
      .prompt = "Once",
      .prompt_size = ZEM_TERMINATED,
      .settings =
          "{\"max_tokens\": 8, \"seed\": 1, \"logit_bias\": {\"256\": -100, \"258\": -100}}"};
  zem_request request = NULL;
  int status = -1;
  require(zem_engine_complete(engine, &what, NULL, &request) == ZEM_OK, "a completion begins");
  const pid_t child = fork();
  require(child >= 0, "the process forks");
  if (child == 0) {
    use_in_child(path, engine, request);
    _exit(0);
  }
  require(read_reply(request) > 0, "the parent's reply goes on");
  require(waitpid(child, &status, 0) == child && status == 0, "the child succeeds");
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  require(zem_api_version() >= ZEM_API_VERSION, "the library is as new as the header");
  zem_engine engine = open_engine(argv[1]);
  check_description(engine);
  check_completion(engine);
  check_chat(engine);
  check_fork(argv[1], engine);
  require(zem_engine_close(engine) == ZEM_OK, "the engine closes");
  require(zem_engine_close(engine) == ZEM_ERROR_HANDLE, "it closes once");
  return 0;
}
