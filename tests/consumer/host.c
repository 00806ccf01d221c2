// SPDX-License-Identifier: Apache-2.0
/* host MODEL TEXT: completes TEXT through the installed plug-in, whose file PLUGIN
 * names when this is compiled. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "zem/plugin.h"

#define TEXT_BYTES (1 << 20)

static char text[TEXT_BYTES];

int main(int argc, char** argv) {
  char error[256] = "";
  ZEMRuntimeHandle* session = NULL;
  ZEMPluginRuntimesV2Fn runtimes;
  const ZEMRuntimeDescriptorV2* runtime;
  void* library;
  int rc;
  if (argc != 3) return 2;
  library = dlopen(PLUGIN, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) return fprintf(stderr, "host: %s\n", dlerror()), 1;
  /* C knows no conversion of an object's pointer into a function's. */
  *(void**)&runtimes = dlsym(library, "zem_plugin_runtimes_v2");
  if (runtimes == NULL) return fprintf(stderr, "host: not a plug-in\n"), 1;
  runtime = runtimes(NULL);
  if (runtime->abi_version != 3 || runtime->struct_size != sizeof *runtime) return 1;
  if (runtime->create(argv[1], "consumer;ctx=512", &session, error, sizeof error) != 0) {
    return fprintf(stderr, "host: %s\n", error), 1;
  }
  rc = runtime->generate(session, argv[2], text, sizeof text);
  runtime->destroy(session);
  if (rc == 0) fwrite(text, 1, strlen(text), stdout);
  return rc;
}
