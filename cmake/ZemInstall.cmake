# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts where. The component Runtime has the program, the modules and
# the documents, Library the shared library, Development what other programs are built with, and
# Python the Python package, in Debian's place for it.
include(CMakePackageConfigHelpers)

# On Windows a program finds its modules and libraries beside itself, and all are one package.
set(module_folder ${CMAKE_INSTALL_LIBDIR}/zem)
set(library_component Library)
if(WIN32)
  set(module_folder ${CMAKE_INSTALL_BINDIR})
  set(library_component Runtime)
endif()

install(TARGETS zem RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
install(TARGETS qwen35_vulkan_plugin
  LIBRARY DESTINATION ${module_folder} COMPONENT Runtime
  RUNTIME DESTINATION ${module_folder} COMPONENT Runtime)
install(FILES include/zem/engine.h include/zem/plugin.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zem COMPONENT Development)
install(FILES README.md CHANGELOG.md LICENSE SECURITY.md THIRD_PARTY_NOTICES.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Runtime)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT Runtime
  FILES_MATCHING PATTERN *.md)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development
  PATTERN __pycache__ EXCLUDE PATTERN examples/CMakeLists.txt EXCLUDE)

if(NOT WIN32)
  set(pages ${PROJECT_BINARY_DIR}/pages)
  set(share ${CMAKE_INSTALL_DATAROOTDIR})
  install(FILES ${pages}/zem.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Runtime)
  install(FILES ${pages}/zem.bash
    DESTINATION ${share}/bash-completion/completions RENAME zem COMPONENT Runtime)
  install(FILES ${pages}/_zem DESTINATION ${share}/zsh/site-functions COMPONENT Runtime)
  install(FILES ${pages}/zem.fish
    DESTINATION ${share}/fish/vendor_completions.d COMPONENT Runtime)
  # A template: no server runs before somebody names its model.
  install(FILES deploy/zem@.service DESTINATION lib/systemd/system COMPONENT Runtime)
  install(FILES deploy/README.md deploy/grafana.json deploy/haproxy.cfg deploy/zem.conf
    DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/deploy COMPONENT Runtime)
endif()

# The libraries' names say whose they are; those of their targets need not.
foreach(library kiv qwen35 qwen35gpu)
  set_target_properties(${library} PROPERTIES OUTPUT_NAME zem_${library})
endforeach()
install(TARGETS kiv qwen35 qwen35gpu EXPORT zem
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)

# An export of its own: who links it needs nothing of what the static libraries need.
install(TARGETS libzem EXPORT libzem
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT ${library_component} NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${library_component})

# Elsewhere the wheel brings it.
install(DIRECTORY python/zem DESTINATION lib/python3/dist-packages
  COMPONENT Python EXCLUDE_FROM_ALL PATTERN __pycache__ EXCLUDE)

# A public header lies at the top of its folder; what lies deeper is private.
set(headers ${CMAKE_INSTALL_INCLUDEDIR}/zem)
file(GLOB library_headers CONFIGURE_DEPENDS src/kiv/*.h)
file(GLOB vulkan_headers CONFIGURE_DEPENDS src/kiv/vulkan/*.h)
file(GLOB decoder_headers CONFIGURE_DEPENDS plugins/*/qwen35_*.h)
install(FILES ${library_headers} DESTINATION ${headers}/kiv COMPONENT Development)
install(FILES ${vulkan_headers} DESTINATION ${headers}/kiv/vulkan COMPONENT Development)
install(FILES ${decoder_headers} DESTINATION ${headers} COMPONENT Development)
# qwen35_zeroed_floats.h includes it.
install(FILES src/compat/zero_pages.h DESTINATION ${headers}/compat COMPONENT Development)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/zem)
install(EXPORT zem NAMESPACE zem:: FILE zem-targets.cmake
  DESTINATION ${package_folder} COMPONENT Development)
install(EXPORT libzem NAMESPACE zem:: FILE libzem-targets.cmake
  DESTINATION ${package_folder} COMPONENT Development)
configure_package_config_file(
  cmake/install/zem-config.cmake.in ${PROJECT_BINARY_DIR}/zem-config.cmake
  INSTALL_DESTINATION ${package_folder} PATH_VARS module_folder)
# Before 1.0 a minor version may change the library's headers.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zem-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zem-config.cmake ${PROJECT_BINARY_DIR}/zem-config-version.cmake
  DESTINATION ${package_folder} COMPONENT Development)

# Relative to the file itself, so that the folders may be moved together, where the folders
# are given relative to the prefix.
set(ZEM_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  file(RELATIVE_PATH up ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/+$" "" up ${up})
  set(ZEM_PC_PREFIX "\${pcfiledir}/${up}")
endif()
foreach(folder LIBDIR INCLUDEDIR)
  set(ZEM_PC_${folder} "\${prefix}/${CMAKE_INSTALL_${folder}}")
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${folder}}")
    set(ZEM_PC_${folder} ${CMAKE_INSTALL_${folder}})
  endif()
endforeach()
configure_file(cmake/install/zem.pc.in ${PROJECT_BINARY_DIR}/zem.pc @ONLY)
configure_file(cmake/install/libzem.pc.in ${PROJECT_BINARY_DIR}/libzem.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zem.pc ${PROJECT_BINARY_DIR}/libzem.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
