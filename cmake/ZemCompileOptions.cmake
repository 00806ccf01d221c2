# SPDX-License-Identifier: Apache-2.0
# One interface target that every target of the project links: warnings, the
# floating-point rules that keep results identical everywhere, sanitizers.
add_library(zem_compile_options INTERFACE)

target_compile_options(zem_compile_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${ZEM_WARNINGS_AS_ERRORS}>:-Werror>
  # GCC 12 sees overlapping copies inside std::string's own operator+, and
  # writes past the end of buffers whose size it has lost track of.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overflow>
  # Not in GCC's -Wconversion for C++; Clang's warns of `for (size_t n : {1, 2})`.
  $<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion>
  # A multiply and an add are fused only where the source says std::fma: a
  # compiler that fuses on its own gives other bits on other machines.
  -ffp-contract=off
  # Nobody reads errno or the exception flags; results stay the same.
  -fno-math-errno
  -fno-trapping-math)

if(MINGW)
  target_compile_definitions(zem_compile_options INTERFACE
    _FILE_OFFSET_BITS=64 __USE_MINGW_ANSI_STDIO=1 NOMINMAX WIN32_LEAN_AND_MEAN)
  # Windows aligns the stack to 16 bytes, and GCC does not align it further there:
  # wider vectors that it keeps on the stack must not be moved as if they were
  # aligned to their size. The assembler turns such moves into the ones that do
  # not care, which cost nothing more.
  target_compile_options(zem_compile_options INTERFACE -Wa,-muse-unaligned-vector-move)
endif()

# What makes a mistake in this code harder to use for who writes a model file.
# tests/hardening looks for all of it in what was built. It added 0.2 % to the counted
# instructions of encoding and at most 0.1 % to those of the other kernels. The sanitizers
# check more, and GCC's Windows library has less.
if(NOT ZEM_SANITIZE AND NOT MINGW)
  target_compile_options(zem_compile_options INTERFACE
    -fstack-protector-strong -fstack-clash-protection
    $<$<CONFIG:Release>:-U_FORTIFY_SOURCE>
    # Checks in the library's inline functions, which there are only where code is optimised.
    $<$<AND:$<CONFIG:Release>,$<NOT:$<BOOL:$<TARGET_PROPERTY:ZEM_UNOPTIMISED>>>>:-D_FORTIFY_SOURCE=3>)
  target_link_options(zem_compile_options INTERFACE
    -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()

if(ZEM_SANITIZE)
  target_compile_options(zem_compile_options INTERFACE
    -fsanitize=${ZEM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(zem_compile_options INTERFACE -fsanitize=${ZEM_SANITIZE})
  add_library(zem_sanitized_program OBJECT ${CMAKE_CURRENT_LIST_DIR}/sanitized_program.cpp)
  target_sources(zem_compile_options INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:zem_sanitized_program>>)
endif()

# zem_unoptimised(TARGET): compiles it for the shortest build, whatever the build type.
function(zem_unoptimised target)
  target_compile_options(${target} PRIVATE -O0)
  set_target_properties(${target} PROPERTIES ZEM_UNOPTIMISED ON)
endfunction()
