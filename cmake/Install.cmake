# Install rules, the CMake package (find_package(ApplianceStorage)) and pkg-config.
include(CMakePackageConfigHelpers)

set(_as_export_targets appliance_storage resource)
foreach(_lib IN ITEMS logging dsk_supp lx_supp)
  if(TARGET ${_lib})
    list(APPEND _as_export_targets ${_lib})
  endif()
endforeach()

install(TARGETS ${_as_export_targets} EXPORT ApplianceStorageTargets
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
configure_file(cmake/appliance_storage.pc.in "${PROJECT_BINARY_DIR}/appliance_storage.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/appliance_storage.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
