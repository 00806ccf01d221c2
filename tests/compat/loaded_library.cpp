// SPDX-License-Identifier: Apache-2.0
// A library for the tests of dlopen().
#if defined(_WIN32)
#define EXPORTED __declspec(dllexport)
#else
#define EXPORTED __attribute__((visibility("default")))
#endif

extern "C" EXPORTED int forty_two() { return 42; }
