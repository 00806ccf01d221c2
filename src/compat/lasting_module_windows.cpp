// In a module that holds this source, the module stays mapped once it is loaded:
// threads that it started may still be asleep in its code when its host lets go.
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
