# The installed package: find_package(vorn) gives vorn::vorn with all that it needs.
include(CMakePackageConfigHelpers)

set(vorn_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vorn)

install(TARGETS vorn EXPORT vornTargets)
if(VORN_GPU STREQUAL "cuda")
  install(TARGETS vorn_cuda EXPORT vornTargets)
  install(FILES cmake/FindCuDnn.cmake DESTINATION ${vorn_package_dir})
endif()
install(EXPORT vornTargets NAMESPACE vorn:: DESTINATION ${vorn_package_dir})
install(DIRECTORY include/vorn DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY platform/cuda/include/ platform/vml/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn-platform)

configure_package_config_file(cmake/vornConfig.cmake.in ${PROJECT_BINARY_DIR}/vornConfig.cmake
                              INSTALL_DESTINATION ${vorn_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vornConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vornConfig.cmake ${PROJECT_BINARY_DIR}/vornConfigVersion.cmake
              cmake/FindOpenBlas.cmake
        DESTINATION ${vorn_package_dir})
