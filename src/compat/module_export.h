// What a module shows to whoever loads it, in front of a function.
#pragma once

#ifdef _WIN32
#define ZEM_MODULE_EXPORT __declspec(dllexport)
#else
#define ZEM_MODULE_EXPORT __attribute__((visibility("default")))
#endif
