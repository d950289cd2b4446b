# Where the library goes for those who build on it. Nothing installed holds an absolute path: a prefix may be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(exports ${PROJECT_SOURCE_DIR}/cmake/hutil.map)
target_link_options(hutil PRIVATE LINKER:--version-script=${exports})
set_property(TARGET hutil APPEND PROPERTY LINK_DEPENDS ${exports})

# A folder of its own, so that a system's util/ is never shadowed.
set(HUTIL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/hutil)
set_property(TARGET hutil PROPERTY INTERFACE_INCLUDE_DIRECTORIES
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${HUTIL_INCLUDEDIR}>)
target_compile_features(hutil INTERFACE cxx_std_11)

install(TARGETS hutil EXPORT hutilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/util DESTINATION ${HUTIL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")

set(pc_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_to_prefix ${pc_dir} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix ${pc_to_prefix})
file(RELATIVE_PATH pc_to_includes ${pc_dir} ${CMAKE_INSTALL_FULL_INCLUDEDIR}/hutil)
configure_file(cmake/hutil.pc.in hutil.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/hutil.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/hutil)
configure_package_config_file(cmake/hutilConfig.cmake.in ${PROJECT_BINARY_DIR}/hutilConfig.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/hutilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/hutilConfig.cmake ${PROJECT_BINARY_DIR}/hutilConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT dev)
install(EXPORT hutilTargets NAMESPACE hutil:: DESTINATION ${package_dir} COMPONENT dev)
