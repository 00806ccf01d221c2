// SPDX-License-Identifier: Apache-2.0
// Part of every sanitized program.

// Libraries stay where they are when they are closed. The Vulkan loader closes its
// drivers, and what a driver's own variables still point to would then look like a
// leak, without a name that could be excused.
extern "C" __attribute__((visibility("default"))) int dlclose(void* /*library*/) { return 0; }

// LLVM's OpenMP runtime loses a few blocks when a team grows. What a thread of a team
// allocated would be excused with them; the decoder's allocate nothing there, or the
// tests in which every request for memory fails would end with an exception in a team.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:libomp.so\n";
}

// What was excused would be printed among what a program prints. And where the records
// of the thread-local storage of opened libraries are kept, the search reads them while
// it holds the other threads and falls over.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options() {
  return "print_suppressions=0:intercept_tls_get_addr=0";
}
