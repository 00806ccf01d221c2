# SPDX-License-Identifier: Apache-2.0
# Header-only packages of the building system, for a cross build: each is linked
# to from a folder of the build tree, since /usr/include as a whole must not come
# into the search path of a compiler for another system.
set(ZEM_HOST_HEADERS ${PROJECT_BINARY_DIR}/host-headers)

# zem_host_header(NAME): /usr/include/NAME, a header or a folder of them.
function(zem_host_header name)
  if(NOT EXISTS /usr/include/${name})
    message(FATAL_ERROR "/usr/include/${name} is missing; scripts/bootstrap.sh installs it")
  endif()
  cmake_path(GET name PARENT_PATH folder)
  file(MAKE_DIRECTORY ${ZEM_HOST_HEADERS}/${folder})
  file(CREATE_LINK /usr/include/${name} ${ZEM_HOST_HEADERS}/${name} SYMBOLIC)
endfunction()
