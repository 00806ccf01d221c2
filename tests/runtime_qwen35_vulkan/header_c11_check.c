// SPDX-License-Identifier: Apache-2.0
/* The plug-in header alone, as C11: compiling is the test. */
#include "zem/plugin.h"

typedef const ZEMRuntimeDescriptorV2* (*RuntimesV2)(uint32_t*);

size_t zem_header_c11_check(void);
size_t zem_header_c11_check(void) {
  ZEMSessionOptions options = {.struct_size = sizeof options, .top_k = 40};
  ZEMPluginRuntimesV2Fn lookup = 0;
  RuntimesV2 same = lookup;
  return options.struct_size + (same == lookup);
}
