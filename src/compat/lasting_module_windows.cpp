// SPDX-License-Identifier: Apache-2.0
// Keeps the module that this source is part of mapped once it is loaded. Threads that the
// module started may still sleep in its code when its host closes it.
#include <windows.h>

namespace {

struct LastingModule {
  LastingModule() {
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<const wchar_t*>(&instance), &self);
  }
  static const LastingModule instance;
};
const LastingModule LastingModule::instance;

}  // namespace
