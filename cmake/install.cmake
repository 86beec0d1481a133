# What `cmake --install` puts in place: libraries, headers, the CMake package, tolvin.pc, the application,
# samples.
include(CMakePackageConfigHelpers)

install(TARGETS tolvin pf pfutil EXPORT tolvin-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
set_target_properties(tolvin pf pfutil PROPERTIES INSTALL_RPATH "$ORIGIN")
if(TOLVIN_APPS)
  install(TARGETS tolvin_command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  set(command_rpath "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  # 32-bit libraries are where scripts/setup has put them, not where the loader looks.
  cmake_path(GET TOLVIN_GEOGRAPHICLIB PARENT_PATH library_folder)
  if(NOT library_folder IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
    list(APPEND command_rpath ${library_folder})
  endif()
  set_target_properties(tolvin_command PROPERTIES INSTALL_RPATH "${command_rpath}")
endif()
foreach(folder kernel geometry vuDB performer)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tolvin
    FILES_MATCHING PATTERN "*.h")
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/plugins/plugin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tolvin)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/samples DESTINATION ${CMAKE_INSTALL_DATADIR}/tolvin
  FILES_MATCHING PATTERN "*.scene" PATTERN "*.drive" PATTERN "*.rgb" PATTERN "*.rgba" PATTERN "*.png" PATTERN "*.obj" PATTERN "*.pcap")
install(FILES ${PROJECT_SOURCE_DIR}/docs/man/tolvin.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/tolvin)
install(EXPORT tolvin-targets NAMESPACE tolvin:: DESTINATION ${package_folder})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tolvinConfig.cmake.in ${PROJECT_BINARY_DIR}/tolvinConfig.cmake
  INSTALL_DESTINATION ${package_folder})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tolvinConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tolvinConfig.cmake ${PROJECT_BINARY_DIR}/tolvinConfigVersion.cmake
  ${PROJECT_SOURCE_DIR}/cmake/tolvinPlugin.cmake ${PROJECT_SOURCE_DIR}/cmake/hide-mangled.map DESTINATION ${package_folder})

configure_file(${PROJECT_SOURCE_DIR}/cmake/tolvin.pc.in ${PROJECT_BINARY_DIR}/tolvin.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tolvin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
