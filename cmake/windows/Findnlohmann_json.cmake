# SPDX-License-Identifier: Apache-2.0
include(ZemHostHeaders)
zem_host_header(nlohmann)
if(NOT TARGET nlohmann_json::nlohmann_json)
  add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED GLOBAL)
  target_include_directories(nlohmann_json::nlohmann_json SYSTEM INTERFACE ${ZEM_HOST_HEADERS})
endif()
set(nlohmann_json_FOUND TRUE)
