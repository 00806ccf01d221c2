/* SPDX-License-Identifier: Apache-2.0 */
/* A host in C: loads the plug-in, asks whether it suits a model, streams the reply
 * to one message and prints what it took. Ctrl-C ends the reply, a second one the
 * program.
 *
 *   c_host PLUGIN MODEL MESSAGE
 *
 * The reply goes to standard output, everything else to standard error. The exit
 * status is 0 for success, 1 when something failed and one line says why, 2 for
 * wrong arguments. */
#define _POSIX_C_SOURCE 200809L
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "zem/plugin.h"

/* What the host uses of the plug-in. */
typedef struct Runtime {
  const ZEMRuntimeDescriptorV2* entries;
  const ZEMRuntimeDescriptorV2S* streaming;
} Runtime;

static volatile int cancelled = 0;

static void onInterrupt(int signalNumber) {
  (void)signalNumber;
  cancelled = 1;
}

static void cancelOnInterrupt(void) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = onInterrupt;
  action.sa_flags = (int)(SA_RESTART | SA_RESETHAND); /* once */
  sigaction(SIGINT, &action, NULL);
}

/* One token's bytes, which may end inside a character: they are passed on as they
 * come, and the terminal puts them together. */
static void showPiece(const char* piece, uint32_t length, void* user) {
  unsigned* pieces = user;
  fwrite(piece, 1, length, stdout);
  fflush(stdout);
  *pieces += 1;
}

static int fail(const char* what, const char* why) {
  fprintf(stderr, "c_host: %s: %s\n", what, why);
  return 1;
}

/* ISO C has no cast from an object to a function pointer; copying the bits is what
 * POSIX promises to work. */
#define LOOK_UP(library, name, function)             \
  do {                                               \
    void* address = dlsym(library, name);            \
    memcpy(&(function), &address, sizeof(function)); \
  } while (0)

/* Nothing is called through a table of another version. */
static int openRuntime(const char* path, Runtime* runtime) {
  ZEMPluginRuntimesV2Fn runtimes;
  ZEMPluginRuntimesV2SFn streamings;
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL); /* never closed: its threads stay */
  if (library == NULL) return fail("cannot load the plug-in", dlerror());
  LOOK_UP(library, "zem_plugin_runtimes_v2", runtimes);
  LOOK_UP(library, "zem_plugin_runtimes_v2s", streamings);
  if (runtimes == NULL || streamings == NULL) return fail(path, "not a runtime plug-in");
  runtime->entries = runtimes(NULL);
  runtime->streaming = streamings(NULL);
  if (runtime->entries->abi_version != 3 ||
      runtime->entries->struct_size < sizeof *runtime->entries ||
      runtime->streaming->abi_version != 1 ||
      runtime->streaming->struct_size < sizeof *runtime->streaming) {
    return fail(path, "made for another version of the boundary");
  }
  return 0;
}

static int converse(const Runtime* runtime, ZEMRuntimeHandle* session, const char* message) {
  ZEMRuntimeStats stats;
  unsigned pieces = 0;
  cancelOnInterrupt();
  fprintf(stderr, "c_host: Ctrl-C ends the reply\n");
  if (runtime->streaming->chat_turn_stream(session, message, showPiece, &pieces, &cancelled) != 0) {
    return fail("the turn failed", "a line above says why, or the context is full");
  }
  printf("\n");
  if (cancelled) fprintf(stderr, "c_host: cancelled after %u pieces\n", pieces);
  if (runtime->entries->stats(session, &stats) != 0) return fail("stats", "failed");
  fprintf(stderr, "c_host: %llu tokens in %.1f ms\n", (unsigned long long)stats.tokens,
          stats.generation_ms);
  return 0;
}

int main(int argc, char** argv) {
  Runtime runtime;
  ZEMRuntimeProbe probe;
  ZEMRuntimeHandle* session = NULL;
  char error[256];
  int rc;
  if (argc != 4) return fprintf(stderr, "usage: c_host PLUGIN MODEL MESSAGE\n"), 2;
  if (openRuntime(argv[1], &runtime) != 0) return 1;
  /* The runtime says no more of such a file than that it does not open. */
  if (access(argv[2], R_OK) != 0) return fail(argv[2], strerror(errno));

  /* 0 means no more than that there is no GPU for it: the CPU may still do. */
  runtime.entries->probe(argv[2], &probe);
  fprintf(stderr, "c_host: %s, confidence %d\n", runtime.entries->id, probe.confidence);

  if (runtime.entries->create(argv[2], "c_host;ctx=2048", &session, error, sizeof error) != 0) {
    return fail(argv[2], error);
  }
  rc = converse(&runtime, session, argv[3]);
  runtime.entries->destroy(session);
  return rc;
}
