# SPDX-License-Identifier: Apache-2.0
# What differs between systems, behind common headers: each source of src/compat
# that ends in _posix or _windows has a twin with the same functions.
#
# zem_compat_sources(VARIABLE NAME ...): the sources of these names for the
# system that is built for.
function(zem_compat_sources variable)
  set(system posix)
  if(WIN32)
    set(system windows)
  endif()
  set(sources ${ARGN})
  list(TRANSFORM sources REPLACE "(.+)" "${PROJECT_SOURCE_DIR}/src/compat/\\1_${system}.cpp")
  set(${variable} ${sources} PARENT_SCOPE)
endfunction()

# zem_lasting_module(TARGET EXPORTS): a module that shows nothing but what the
# version script EXPORTS lists (on Windows: what its sources mark as exported) and
# stays mapped when its host closes it, for the threads of the decoder's team
# outlive the last call and their code must not be unmapped beneath them.
function(zem_lasting_module target exports)
  set_target_properties(${target} PROPERTIES PREFIX "")
  if(WIN32)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/src/compat/lasting_module_windows.cpp)
    target_link_options(${target} PRIVATE -Wl,--exclude-all-symbols -Wl,--gc-sections)
    return()
  endif()
  target_link_options(${target} PRIVATE
    -Wl,--version-script=${exports} -Wl,-z,nodelete -Wl,--gc-sections)
  # Clang's sanitizers are in the program; a module finds them there when it is loaded.
  if(NOT ZEM_SANITIZE OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_link_options(${target} PRIVATE -Wl,-z,defs)
  endif()
  set_target_properties(${target} PROPERTIES LINK_DEPENDS ${exports})
endfunction()
