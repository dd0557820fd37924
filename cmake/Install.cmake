# Install rules, the CMake package (find_package(ApplianceStorage)) and pkg-config.
include(CMakePackageConfigHelpers)

install(TARGETS appliance_storage ${AS_PLATFORM_LIBRARIES} EXPORT ApplianceStorageTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(EXPORT ApplianceStorageTargets NAMESPACE ApplianceStorage::
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/ApplianceStorage")

configure_package_config_file(cmake/ApplianceStorageConfig.cmake.in
  "${PROJECT_BINARY_DIR}/ApplianceStorageConfig.cmake"
  INSTALL_DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/ApplianceStorage")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/ApplianceStorageConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/ApplianceStorageConfig.cmake"
  "${PROJECT_BINARY_DIR}/ApplianceStorageConfigVersion.cmake"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/ApplianceStorage")

# The .pc file finds its prefix relative to itself, so a staged or moved install works.
file(RELATIVE_PATH AS_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
list(TRANSFORM AS_PLATFORM_LIBRARIES PREPEND "-l" OUTPUT_VARIABLE _as_pc_libs)
string(JOIN " " AS_PC_PLATFORM_LIBS ${_as_pc_libs})
configure_file(cmake/appliance_storage.pc.in "${PROJECT_BINARY_DIR}/appliance_storage.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/appliance_storage.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
