# cuDNN beside the CUDA toolkit: the imported target CuDnn::CuDnn.
find_path(CuDnn_INCLUDE_DIR cudnn.h HINTS ${CUDAToolkit_INCLUDE_DIRS})
find_library(CuDnn_LIBRARY cudnn HINTS ${CUDAToolkit_LIBRARY_DIR})

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(CuDnn REQUIRED_VARS CuDnn_LIBRARY CuDnn_INCLUDE_DIR)
mark_as_advanced(CuDnn_INCLUDE_DIR CuDnn_LIBRARY)

if(CuDnn_FOUND AND NOT TARGET CuDnn::CuDnn)
  add_library(CuDnn::CuDnn UNKNOWN IMPORTED)
  set_target_properties(CuDnn::CuDnn PROPERTIES
    IMPORTED_LOCATION ${CuDnn_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${CuDnn_INCLUDE_DIR})
endif()
