# SPDX-License-Identifier: Apache-2.0
# What holds the library to the interface that libzem.abi describes: a twin of it with debug
# information. tests/libzem compares; the target libzem_abi writes the description anew.
find_program(ZEM_ABIDIFF abidiff)
find_program(ZEM_ABIDW abidw)
mark_as_advanced(ZEM_ABIDIFF ZEM_ABIDW)
if(NOT ZEM_ABIDIFF OR NOT ZEM_ABIDW OR WIN32 OR ZEM_SANITIZE
   OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  return()
endif()

# The types are told by debug information, which the library itself leaves out.
target_compile_options(libzem_objects PRIVATE -g -fno-var-tracking)
target_link_options(libzem PRIVATE -Wl,--strip-debug)
zem_shared_library(libzem_described)
set_target_properties(libzem_described PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/described)

add_custom_target(libzem_abi
  COMMAND ${CMAKE_CURRENT_LIST_DIR}/abi.sh describe $<TARGET_FILE:libzem_described>
  DEPENDS libzem_described
  VERBATIM)
