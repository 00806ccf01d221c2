// SPDX-License-Identifier: Apache-2.0
#include "libzem/open_engine.h"

#include "compat/at_fork.h"

namespace zem::boundary {
namespace {

void lockTables() {
  engines().lock();
  requests().lock();
}

void unlockTables() {
  requests().unlock();
  engines().unlock();
}

void forgetHandles() {
  requests().forget();
  engines().forget();
}

}  // namespace

void watchForks() {
  static const bool watches = (compat::atFork(lockTables, unlockTables, forgetHandles), true);
  static_cast<void>(watches);
}

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
