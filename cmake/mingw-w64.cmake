# SPDX-License-Identifier: Apache-2.0
# Windows programs from Debian: mingw-w64 with POSIX threads, run under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# Nothing of this system's headers and libraries belongs into a program for
# another; what is needed of them (headers alone) the modules in windows/ fetch.
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/windows)

# The compiler's own libraries, OpenMP's and threads among them, go into each
# program and module: what is copied to a Windows machine needs nothing beside it.
foreach(kind EXE MODULE SHARED)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT -static)
endforeach()

# Tests and programs of the build run through Wine, with a folder of their own
# for what it keeps. Debian's wine64 lies in Wine's library folder.
find_program(WINE NAMES wine64 wine PATHS /usr/lib/wine)
mark_as_advanced(WINE)
if(WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR
    env WINEPREFIX=${CMAKE_BINARY_DIR}/wine WINEDEBUG=-all LC_ALL=C.UTF-8 ${WINE})
endif()
