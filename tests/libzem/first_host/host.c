/* SPDX-License-Identifier: Apache-2.0
 * host MODEL FOLDER: uses every function of libzem as its first header describes them, and fails
 * with a line where one does something else. MODEL is any model that takes chats and has the tokens
 * "<|endoftext|>" and "<|im_end|>"; FOLDER takes a file. README.md: never edited. */
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zem/engine.h"

#define REQUIRE(holds)                                                            \
  do {                                                                            \
    if (!(holds)) {                                                               \
      fprintf(stderr, "host.c:%d: %s: %s\n", __LINE__, #holds, zem_last_error()); \
      exit(1);                                                                    \
    }                                                                             \
  } while (0)

enum { ROOM = 4096, TOKENS = 8 };

/* Settings of replies of TOKENS tokens: those that would end one earlier never come. */
static char settings[512];

/* What a reply said. */
typedef struct reply {
  char text[ROOM];
  size_t length;
  uint32_t ids[ROOM]; /* of prompt and reply */
  size_t id_count;
  unsigned tokens, prompts;
  zem_usage usage;
  uint32_t end_reason;
} reply;

static const char* const code_names[] = {"ZEM_OK",
                                         "ZEM_ERROR_ARGUMENT",
                                         "ZEM_ERROR_HANDLE",
                                         "ZEM_ERROR_CALLBACK",
                                         "ZEM_ERROR_BUSY",
                                         "ZEM_ERROR_SPACE",
                                         "ZEM_ERROR_REQUEST",
                                         "ZEM_ERROR_QUEUE",
                                         "ZEM_ERROR_FILE",
                                         "ZEM_ERROR_FORMAT",
                                         "ZEM_ERROR_UNSUPPORTED",
                                         "ZEM_ERROR_MEMORY",
                                         "ZEM_ERROR_INTERNAL",
                                         "ZEM_TIMEOUT",
                                         "ZEM_FINISHED"};

static void check_general(void) {
  char out[64];
  size_t length = 0;
  int32_t code;
  REQUIRE(zem_api_version() >= 1);
  REQUIRE(strchr(zem_version(), '.') != NULL);
  REQUIRE(strcmp(zem_last_error(), "") == 0);
  for (code = 0; code < 15; ++code) REQUIRE(strcmp(zem_code_name(code), code_names[code]) == 0);
  REQUIRE(strcmp(zem_code_name(-1), "unknown code") == 0);
  REQUIRE(zem_quote_json("a\n\"", ZEM_TERMINATED, NULL, 0, &length) == ZEM_ERROR_SPACE);
  REQUIRE(length == 7);
  REQUIRE(zem_quote_json("a\n\"", 3, out, sizeof out, &length) == ZEM_OK);
  REQUIRE(length == 7 && memcmp(out, "\"a\\n\\\"\"", 7) == 0);
  REQUIRE(zem_quote_json(NULL, 0, out, sizeof out, &length) == ZEM_OK && length == 2);
}

static zem_engine open_engine(const char* path) {
  zem_engine_options options = {.struct_size = sizeof options,
                                .threads = 1,
                                .cache_numbers = ZEM_CACHE_FLOAT,
                                .math = ZEM_MATH_EXACT,
                                .sequences = 2,
                                .waiting = 8,
                                .context = 512,
                                .batch_tokens = 16,
                                .memory_bytes = UINT64_C(1) << 30,
                                .cache_bytes = UINT64_C(1) << 26};
  zem_engine engine = NULL;
  REQUIRE(zem_engine_open(path, &options, &engine) == ZEM_OK && engine != NULL);
  return engine;
}

static void check_description(zem_engine engine) {
  zem_description model = {.struct_size = sizeof model};
  REQUIRE(zem_engine_describe(engine, &model) == ZEM_OK);
  REQUIRE(model.struct_size == 88);
  REQUIRE(model.layers > 0 && model.width > 0 && model.vocabulary > 0);
  REQUIRE(model.parameters > 0 && model.weight_bytes > 0 && model.state_bytes > 0);
  REQUIRE(model.position_bytes > 0 && model.context == 512);
  REQUIRE(strlen(model.name) > 0 && strlen(model.chat_format) > 0);
  REQUIRE(strcmp(model.tokenizer, "exact") == 0 || strcmp(model.tokenizer, "plain") == 0);
}

static uint32_t id_of(zem_engine engine, const char* special) {
  uint32_t id = 0;
  size_t length = 0;
  REQUIRE(zem_engine_tokenize(engine, special, ZEM_TERMINATED, ZEM_SPECIAL_TOKENS, &id, 1,
                              &length) == ZEM_OK);
  REQUIRE(length == 1);
  return id;
}

static void check_tokens(zem_engine engine) {
  const char* text = "Once upon <|im_end|>";
  uint32_t ids[64];
  char back[64];
  size_t count = 0, length = 0;
  REQUIRE(zem_engine_tokenize(engine, text, ZEM_TERMINATED, 0, NULL, 0, &count) == ZEM_ERROR_SPACE);
  REQUIRE(count > 1 && count <= 64);
  REQUIRE(zem_engine_tokenize(engine, text, strlen(text), 0, ids, 64, &count) == ZEM_OK);
  REQUIRE(zem_engine_detokenize(engine, ids, count, 0, back, sizeof back, &length) == ZEM_OK);
  REQUIRE(length == strlen(text) && memcmp(back, text, length) == 0);
  ids[0] = id_of(engine, "<|im_end|>");
  REQUIRE(zem_engine_detokenize(engine, ids, 1, 0, back, sizeof back, &length) == ZEM_OK);
  REQUIRE(length == 0);
  REQUIRE(zem_engine_detokenize(engine, ids, 1, ZEM_SPECIAL_TOKENS, back, sizeof back, &length) ==
          ZEM_OK);
  REQUIRE(length == 10 && memcmp(back, "<|im_end|>", 10) == 0);
}

static void add_event(const zem_event* event, reply* out) {
  REQUIRE(event->text != NULL && event->text[event->text_size] == '\0');
  switch (event->kind) {
    case ZEM_EVENT_PROMPT:
      REQUIRE(event->total > 0 && event->done <= event->total);
      ++out->prompts;
      break;
    case ZEM_EVENT_TOKEN:
      REQUIRE(event->log_probability <= 0 && event->likely_count == 2);
      REQUIRE(event->likeliest[0].log_probability >= event->likeliest[1].log_probability);
      ++out->tokens;
      break;
    case ZEM_EVENT_REASONING:
    case ZEM_EVENT_CONTENT:
      REQUIRE(out->length + event->text_size < ROOM);
      memcpy(out->text + out->length, event->text, event->text_size);
      out->length += event->text_size;
      break;
    case ZEM_EVENT_END:
      REQUIRE(event->stop_text == -1);
      out->end_reason = event->end_reason;
      out->usage = event->usage;
      break;
    default:
      REQUIRE(event->kind == ZEM_EVENT_CALL_BEGIN || event->kind == ZEM_EVENT_CALL_ARGUMENTS ||
              event->kind == ZEM_EVENT_CALL_END);
  }
}

static void read_reply(zem_request request, reply* out) {
  zem_event event = {.struct_size = sizeof event};
  zem_code code;
  memset(out, 0, sizeof *out);
  while ((code = zem_request_next(request, 60000, &event)) == ZEM_OK) {
    REQUIRE(event.struct_size == 136);
    add_event(&event, out);
  }
  REQUIRE(code == ZEM_FINISHED);
  REQUIRE(zem_request_next(request, ZEM_FOREVER, &event) == ZEM_FINISHED);
  REQUIRE(zem_request_tokens(request, out->ids, ROOM, &out->id_count) == ZEM_OK);
  REQUIRE(zem_request_close(request) == ZEM_OK);
}

static void check_whole(const reply* got) {
  REQUIRE(got->end_reason == ZEM_END_LENGTH && got->usage.generated_tokens == TOKENS);
  REQUIRE(got->id_count == got->usage.prompt_tokens + TOKENS && got->length > 0);
  REQUIRE(got->usage.waited_seconds >= 0 && got->usage.prompt_seconds >= 0);
  REQUIRE(got->usage.generate_seconds >= 0);
}

/* A text, and the ids of that text, give the same reply. */
static void check_completions(zem_engine engine) {
  static reply first, second;
  uint32_t ids[64];
  size_t count = 0;
  zem_delivery how = {.struct_size = sizeof how, .flags = ZEM_TELL_PROMPT | ZEM_TELL_TOKENS};
  zem_completion what = {.struct_size = sizeof what,
                         .prompt = "Once upon",
                         .prompt_size = ZEM_TERMINATED,
                         .settings = settings};
  zem_request request = NULL;
  REQUIRE(zem_engine_complete(engine, &what, &how, &request) == ZEM_OK);
  read_reply(request, &first);
  check_whole(&first);
  REQUIRE(first.tokens == TOKENS && first.prompts > 0);

  REQUIRE(zem_engine_tokenize(engine, "Once upon", ZEM_TERMINATED, 0, ids, 64, &count) == ZEM_OK);
  what.prompt = NULL;
  what.ids = ids;
  what.id_count = count;
  REQUIRE(zem_engine_complete(engine, &what, NULL, &request) == ZEM_OK);
  read_reply(request, &second);
  REQUIRE(second.length == first.length && memcmp(second.text, first.text, first.length) == 0);
}

static void chat_request(char* json, size_t room) {
  snprintf(json, room, "{\"messages\": [{\"role\": \"user\", \"content\": \"Hi\"}], %s",
           settings + 1);
}

static void check_chat(zem_engine engine) {
  static char json[1024], text[ROOM];
  static uint32_t ids[ROOM];
  static reply got;
  size_t text_length = 0, id_count = 0;
  zem_request request = NULL;
  chat_request(json, sizeof json);
  REQUIRE(zem_engine_render(engine, json, ZEM_TERMINATED, text, ROOM, &text_length, ids, ROOM,
                            &id_count) == ZEM_OK);
  REQUIRE(text_length > 0 && id_count > 0);
  REQUIRE(zem_engine_chat(engine, json, strlen(json), NULL, &request) == ZEM_OK);
  read_reply(request, &got);
  check_whole(&got);
  REQUIRE(got.usage.prompt_tokens == id_count);
  REQUIRE(memcmp(got.ids, ids, id_count * sizeof *ids) == 0);
}

typedef struct listener {
  zem_engine engine;
  reply got;
  zem_code refused;
  atomic_int ended;
} listener;

static void on_event(const zem_event* event, void* user) {
  listener* self = user;
  add_event(event, &self->got);
  if (event->kind != ZEM_EVENT_END) return;
  self->refused = zem_engine_close(self->engine);
  atomic_store(&self->ended, 1);
}

static void pause_shortly(void) {
  const struct timespec pause = {.tv_nsec = 1000000};
  nanosleep(&pause, NULL);
}

static void check_callback(zem_engine engine) {
  static listener hears;
  static char json[1024];
  zem_delivery how = {.struct_size = sizeof how, .callback = on_event, .user = &hears};
  hears.engine = engine;
  chat_request(json, sizeof json);
  REQUIRE(zem_engine_chat(engine, json, ZEM_TERMINATED, &how, NULL) == ZEM_OK);
  while (!atomic_load(&hears.ended)) pause_shortly();
  REQUIRE(hears.got.end_reason == ZEM_END_LENGTH && hears.got.length > 0);
  REQUIRE(hears.refused == ZEM_ERROR_CALLBACK);
}

/* The first event waits until the program has looked at a request that is under way. */
typedef struct holder {
  atomic_int looked;
  atomic_uint end_reason; /* plus 1 */
} holder;

static void hold_event(const zem_event* event, void* user) {
  holder* self = user;
  while (!atomic_load(&self->looked)) pause_shortly();
  if (event->kind == ZEM_EVENT_END) atomic_store(&self->end_reason, event->end_reason + 1);
}

static zem_completion long_completion(void) {
  static char endless[512];
  zem_completion what = {.struct_size = sizeof what, .prompt = "Once", .prompt_size = 4};
  snprintf(endless, sizeof endless, "%.*s}", (int)(strstr(settings, ", \"max") - settings),
           settings);
  what.settings = endless;
  return what;
}

static void check_cancel(zem_engine engine) {
  static holder holds;
  zem_delivery how = {.struct_size = sizeof how, .callback = hold_event, .user = &holds};
  zem_event event = {.struct_size = sizeof event};
  zem_completion what = long_completion();
  zem_request request = NULL;
  REQUIRE(zem_engine_complete(engine, &what, &how, &request) == ZEM_OK);
  REQUIRE(zem_engine_close(engine) == ZEM_ERROR_BUSY);
  REQUIRE(zem_request_next(request, 0, &event) == ZEM_ERROR_ARGUMENT);
  REQUIRE(zem_request_cancel(request) == ZEM_OK);
  atomic_store(&holds.looked, 1);
  while (atomic_load(&holds.end_reason) == 0) pause_shortly();
  REQUIRE(atomic_load(&holds.end_reason) == ZEM_END_CANCELLED + 1);
  REQUIRE(zem_request_close(request) == ZEM_OK);
}

/* A slow machine may have them end by their context before they are cancelled. */
static void check_cancel_all(zem_engine engine) {
  zem_event event = {.struct_size = sizeof event};
  zem_completion what = long_completion();
  zem_request request = NULL, other = NULL;
  REQUIRE(zem_engine_complete(engine, &what, NULL, &request) == ZEM_OK);
  REQUIRE(zem_engine_complete(engine, &what, NULL, &other) == ZEM_OK);
  REQUIRE(zem_engine_cancel_all(engine) == ZEM_OK);
  while (zem_request_next(request, 0, &event) == ZEM_OK) continue;
  REQUIRE(event.kind == ZEM_EVENT_END);
  REQUIRE(event.end_reason == ZEM_END_CANCELLED || event.end_reason == ZEM_END_CONTEXT);
  REQUIRE(zem_request_close(request) == ZEM_OK && zem_request_close(other) == ZEM_OK);
}

static void check_saved(zem_engine engine, const char* model, const char* folder) {
  static reply got;
  static uint32_t ids[ROOM];
  static char path[ROOM];
  size_t saved = 0, length = 0;
  zem_completion what = {.struct_size = sizeof what,
                         .prompt = "Once upon a time",
                         .prompt_size = ZEM_TERMINATED,
                         .settings = settings};
  zem_engine second;
  zem_request request = NULL;
  snprintf(path, sizeof path, "%s/first_host.state", folder);
  REQUIRE(zem_engine_complete(engine, &what, NULL, &request) == ZEM_OK);
  read_reply(request, &got);
  REQUIRE(zem_engine_save(engine, got.ids, got.id_count, path, &saved) == ZEM_OK);
  REQUIRE(saved > 0 && saved <= got.id_count);
  second = open_engine(model);
  REQUIRE(zem_engine_restore(second, path, ids, ROOM, &length) == ZEM_OK && length == saved);
  REQUIRE(memcmp(ids, got.ids, saved * sizeof *ids) == 0);
  REQUIRE(zem_engine_close(second) == ZEM_OK);
  REQUIRE(remove(path) == 0);
}

static void check_statistics(zem_engine engine) {
  zem_statistics sums = {.struct_size = sizeof sums, .reserved = 7};
  REQUIRE(zem_engine_statistics(engine, &sums) == ZEM_OK);
  REQUIRE(sums.struct_size == 72 && sums.reserved == 0);
  REQUIRE(sums.running == 0 && sums.waiting == 0 && sums.requests == 8);
  REQUIRE(sums.prompt_tokens > 0 && sums.generated_tokens >= 5 * TOKENS);
}

static void check_misuse(zem_engine engine, const char* model) {
  zem_engine_options options = {.struct_size = sizeof options - 1};
  zem_engine other = NULL;
  zem_request request = NULL;
  zem_completion what = {.struct_size = sizeof what, .prompt = "a", .prompt_size = 1};
  size_t length = 0;
  REQUIRE(zem_engine_open(model, &options, &other) == ZEM_ERROR_ARGUMENT && other == NULL);
  REQUIRE(zem_engine_open("/no such file", NULL, &other) == ZEM_ERROR_FILE);
  REQUIRE(strstr(zem_last_error(), "/no such file") != NULL);
  REQUIRE(zem_engine_open(NULL, NULL, &other) == ZEM_ERROR_ARGUMENT);
  REQUIRE(zem_engine_close(NULL) == ZEM_ERROR_HANDLE);
  REQUIRE(zem_request_close((zem_request)engine) == ZEM_ERROR_HANDLE);
  REQUIRE(zem_engine_tokenize(engine, "a", 1, 2, NULL, 0, &length) == ZEM_ERROR_ARGUMENT);
  REQUIRE(zem_engine_restore(engine, model, NULL, 0, &length) == ZEM_ERROR_FORMAT);
  what.settings = "{\"temprature\": 1}";
  REQUIRE(zem_engine_complete(engine, &what, NULL, &request) == ZEM_ERROR_REQUEST);
  REQUIRE(zem_engine_chat(engine, "[", ZEM_TERMINATED, NULL, &request) == ZEM_ERROR_REQUEST);
  REQUIRE(request == NULL);
}

int main(int argc, char** argv) {
  zem_engine engine;
  if (argc != 3) return 2;
  check_general();
  engine = open_engine(argv[1]);
  snprintf(settings, sizeof settings,
           "{\"seed\": 1, \"logprobs\": true, \"top_logprobs\": 2, \"logit_bias\": {\"%u\": -100, "
           "\"%u\": -100}, \"max_tokens\": %d}",
           id_of(engine, "<|endoftext|>"), id_of(engine, "<|im_end|>"), TOKENS);
  check_description(engine);
  check_tokens(engine);
  check_completions(engine);
  check_chat(engine);
  check_callback(engine);
  check_cancel(engine);
  check_cancel_all(engine);
  check_saved(engine, argv[1], argv[2]);
  check_statistics(engine);
  check_misuse(engine, argv[1]);
  REQUIRE(zem_engine_close(engine) == ZEM_OK);
  REQUIRE(zem_engine_close(engine) == ZEM_ERROR_HANDLE);
  return 0;
}
