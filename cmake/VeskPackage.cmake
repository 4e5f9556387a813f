# Installs the CMake package vesk_datastore (targets vesk::generic,
# vesk::datastore, vesk::tessdb) and the pkg-config file vesk_datastore.pc.
include(CMakePackageConfigHelpers)
set(VESK_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/vesk_datastore")
install(EXPORT vesk_datastore_targets NAMESPACE vesk:: FILE vesk_datastore_targets.cmake
        DESTINATION ${VESK_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vesk_datastoreConfig.cmake.in
  ${CMAKE_BINARY_DIR}/vesk_datastoreConfig.cmake INSTALL_DESTINATION ${VESK_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/vesk_datastoreConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/vesk_datastoreConfig.cmake
              ${CMAKE_BINARY_DIR}/vesk_datastoreConfigVersion.cmake
        DESTINATION ${VESK_CMAKE_DIR})
configure_file(${PROJECT_SOURCE_DIR}/cmake/vesk_datastore.pc.in
               ${CMAKE_BINARY_DIR}/vesk_datastore.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/vesk_datastore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
