/* SPDX-License-Identifier: Apache-2.0
 * engine_c MODEL MESSAGE: streams the reply to one message, with libzem. The reply goes to
 * standard output, everything else to standard error. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zem/engine.h"

static int fail(void) {
  fprintf(stderr, "engine_c: %s\n", zem_last_error());
  return 1;
}

/* The request as JSON, to be freed; null when memory is out. */
static char* request_for(const char* message) {
  static const char before[] = "{\"messages\": [{\"role\": \"user\", \"content\": ";
  static const char after[] = "}], \"max_tokens\": 200}";
  size_t quoted = 0;
  zem_quote_json(message, ZEM_TERMINATED, NULL, 0, &quoted); /* measures */
  char* json = malloc(sizeof before + quoted + sizeof after);
  if (json == NULL) return NULL;
  memcpy(json, before, sizeof before - 1);
  zem_quote_json(message, ZEM_TERMINATED, json + sizeof before - 1, quoted, &quoted);
  memcpy(json + sizeof before - 1 + quoted, after, sizeof after);
  return json;
}

static int print_reply(zem_request request) {
  zem_event event = {.struct_size = sizeof event};
  while (zem_request_next(request, ZEM_FOREVER, &event) == ZEM_OK) {
    if (event.kind == ZEM_EVENT_CONTENT) {
      fwrite(event.text, 1, event.text_size, stdout);
      fflush(stdout);
    } else if (event.kind == ZEM_EVENT_END && event.end_reason == ZEM_END_ERROR) {
      fprintf(stderr, "engine_c: %s\n", event.text);
      return 1;
    }
  }
  putchar('\n');
  fprintf(stderr, "%llu tokens in %.2f s\n", (unsigned long long)event.usage.generated_tokens,
          event.usage.generate_seconds);
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: engine_c MODEL MESSAGE\n");
    return 2;
  }
  zem_engine engine = NULL;
  if (zem_engine_open(argv[1], NULL, &engine) != ZEM_OK) return fail();
  zem_request request = NULL;
  char* json = request_for(argv[2]);
  const int asked =
      json != NULL && zem_engine_chat(engine, json, ZEM_TERMINATED, NULL, &request) == ZEM_OK;
  const int status = asked ? print_reply(request) : fail();
  free(json);
  if (asked) zem_request_close(request);
  zem_engine_close(engine);
  return status;
}
