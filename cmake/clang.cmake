# SPDX-License-Identifier: Apache-2.0
# Clang, for the sanitizers and the fuzzers: the newest of those that are installed.
set(versions 22 21 20 19 18 17 16 15 14)
list(TRANSFORM versions PREPEND clang- OUTPUT_VARIABLE c_names)
list(TRANSFORM versions PREPEND clang++- OUTPUT_VARIABLE cxx_names)
find_program(ZEM_CLANG NAMES clang ${c_names} REQUIRED)
find_program(ZEM_CLANGXX NAMES clang++ ${cxx_names} REQUIRED)
mark_as_advanced(ZEM_CLANG ZEM_CLANGXX)
set(CMAKE_C_COMPILER ${ZEM_CLANG})
set(CMAKE_CXX_COMPILER ${ZEM_CLANGXX})
