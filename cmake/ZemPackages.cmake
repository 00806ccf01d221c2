# SPDX-License-Identifier: Apache-2.0
# What `cpack` makes of an installation: packages for Debian, or an archive of what a
# Windows machine needs to run models.
set(CPACK_PACKAGE_NAME zem)
set(CPACK_PACKAGE_VENDOR "the zem authors")
set(CPACK_PACKAGE_CONTACT "the zem authors <zem@example.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 0)
set(CPACK_COMPONENTS_GROUPING IGNORE)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME windows-x86_64)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENTS_ALL Runtime)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)  # unpacked, it is one folder
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION science)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME zem)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  # The system's Vulkan loader is opened where there is one.
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS libvulkan1)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS mesa-vulkan-drivers)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzem-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "zem (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "g++, libvulkan-volk-dev, pkg-config")
  set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Headers, libraries and examples for programs that link zem or load its plug-in")
  install(FILES cmake/install/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/zem COMPONENT Runtime)
  install(FILES cmake/install/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libzem-dev COMPONENT Development)
endif()

include(CPack)
