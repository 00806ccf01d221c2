// SPDX-License-Identifier: Apache-2.0
#include "libzem/open_engine.h"

namespace zem::boundary {

EngineTable& engines() {
  static auto& table = *new EngineTable;
  return table;
}

RequestTable& requests() {
  static auto& table = *new RequestTable;
  return table;
}

Outcome noEngine() { return failure(ZEM_ERROR_HANDLE, "the handle is not that of an open engine"); }

Outcome noRequest() {
  return failure(ZEM_ERROR_HANDLE, "the handle is not that of an open request");
}

}  // namespace zem::boundary
