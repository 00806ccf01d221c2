# SPDX-License-Identifier: Apache-2.0
include(ZemHostHeaders)
zem_host_header(boost)
if(NOT TARGET Boost::headers)
  add_library(Boost::headers INTERFACE IMPORTED GLOBAL)
  target_include_directories(Boost::headers SYSTEM INTERFACE ${ZEM_HOST_HEADERS})
endif()
set(Boost_FOUND TRUE)
