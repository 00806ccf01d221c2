# SPDX-License-Identifier: Apache-2.0
# What `cpack` makes of an installation: an archive of what a Windows machine needs to run models.
# scripts/debian_packages.sh makes packages for Debian.
if(NOT WIN32)
  return()
endif()

set(CPACK_PACKAGE_NAME zem)
set(CPACK_PACKAGE_VENDOR "the zem authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 0)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_GENERATOR ZIP)
set(CPACK_SYSTEM_NAME windows-x86_64)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime)
set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)  # unpacked, it is one folder

include(CPack)
