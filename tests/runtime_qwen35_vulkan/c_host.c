// SPDX-License-Identifier: Apache-2.0
/* A small host in C: loads the plug-in, asks it about a model, holds a short
 * conversation and leaves. Usage: c_host PLUGIN MODEL
 * Prints one line a step; exits with 0 when every step did what it should. */
#include <stdio.h>
#include <string.h>

#include "compat/dlfcn.h"
#include "zem/plugin.h"

/* ISO C has no cast from an object to a function pointer; copying the bits is
 * what POSIX promises to work. */
#define LOOK_UP(library, name, function)             \
  do {                                               \
    void* address = dlsym(library, name);            \
    memcpy(&(function), &address, sizeof(function)); \
  } while (0)

typedef struct Reply {
  unsigned pieces;
  unsigned bytes;
  unsigned stopAfter; /* pieces; 0: never */
  volatile int cancel;
} Reply;

static void onPiece(const char* piece, uint32_t length, void* user) {
  Reply* reply = user;
  (void)piece;
  reply->pieces += 1;
  reply->bytes += length;
  if (reply->pieces == reply->stopAfter) reply->cancel = 1;
}

static int fail(const char* what) {
  printf("failed: %s\n", what);
  return 1;
}

static int converse(const ZEMRuntimeDescriptorV2* runtime, const ZEMRuntimeDescriptorV2S* streaming,
                    ZEMRuntimeHandle* session) {
  char text[4096];
  Reply reply = {.stopAfter = 3};
  ZEMRuntimeStats stats;
  ZEMSessionOptions options = {.struct_size = sizeof options, .system_prompt = "Be brief."};

  if (runtime->configure(session, &options) != 0) return fail("configure");
  if (streaming->chat_turn_stream(session, "Hello", onPiece, &reply, &reply.cancel) != 0) {
    return fail("chat_turn_stream");
  }
  printf("streamed %u pieces, %u bytes\n", reply.pieces, reply.bytes);
  if (reply.pieces != reply.stopAfter) return fail("cancel");

  if (runtime->chat_turn(session, "And again", text, sizeof text) != 0) return fail("chat_turn");
  printf("reply of %zu bytes\n", strlen(text));
  if (runtime->stats(session, &stats) != 0 || stats.tokens == 0) return fail("stats");
  printf("%llu tokens\n", (unsigned long long)stats.tokens);

  if (runtime->reset(session) != 0) return fail("reset");
  if (runtime->stats(session, &stats) != 0 || stats.tokens != 0) return fail("stats after reset");
  if (runtime->generate(session, "Once", text, sizeof text) != 0) return fail("generate");
  printf("completion of %zu bytes\n", strlen(text));
  return 0;
}

static int run(void* library, const char* model) {
  ZEMPluginInitFn init;
  ZEMPluginRuntimesV2Fn runtimes;
  ZEMPluginRuntimesV2SFn streamings;
  const ZEMRuntimeDescriptorV2* runtime;
  const ZEMRuntimeDescriptorV2S* streaming;
  ZEMRuntimeProbe probe;
  ZEMRuntimeHandle* session = NULL;
  char error[256];
  uint32_t count = 0;
  int rc;

  LOOK_UP(library, "zem_plugin_init", init);
  LOOK_UP(library, "zem_plugin_runtimes_v2", runtimes);
  LOOK_UP(library, "zem_plugin_runtimes_v2s", streamings);
  if (init == NULL || runtimes == NULL || streamings == NULL) return fail("exports");
  printf("plug-in %s\n", init(NULL)->name);
  runtime = runtimes(&count);
  if (count != 1 || runtime->struct_size != sizeof *runtime) return fail("runtimes");
  streaming = streamings(&count);
  if (count != 1 || strcmp(streaming->id, runtime->id) != 0) return fail("streaming table");

  runtime->probe(model, &probe);
  printf("probe: confidence %d, architecture \"%s\"\n", probe.confidence, probe.architecture);
  if (runtime->create("no such file", NULL, &session, error, sizeof error) != 1 ||
      session != NULL) {
    return fail("create of a missing file");
  }
  printf("missing file: %s\n", error);
  if (runtime->create(model, "host;ctx=80", &session, error, sizeof error) != 0) {
    return fail(error);
  }
  rc = converse(runtime, streaming, session);
  runtime->destroy(session);
  runtime->destroy(NULL);
  return rc;
}

int main(int argc, char** argv) {
  void* library;
  int rc;
  if (argc != 3) {
    fprintf(stderr, "usage: c_host PLUGIN MODEL\n");
    return 2;
  }
  library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) return fail(dlerror());
  rc = run(library, argv[2]);
  dlclose(library);
  if (rc == 0) printf("done\n");
  return rc;
}
