# SPDX-License-Identifier: Apache-2.0
include(ZemHostHeaders)
zem_host_header(CLI)
if(NOT TARGET CLI11::CLI11)
  add_library(CLI11::CLI11 INTERFACE IMPORTED GLOBAL)
  target_include_directories(CLI11::CLI11 SYSTEM INTERFACE ${ZEM_HOST_HEADERS})
endif()
set(CLI11_FOUND TRUE)
