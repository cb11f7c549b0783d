# OpenBLAS with its CBLAS and LAPACKE interfaces: the imported target OpenBlas::OpenBlas.
find_path(OpenBlas_INCLUDE_DIR cblas.h)
find_library(OpenBlas_LIBRARY openblas)
find_library(OpenBlas_LAPACKE_LIBRARY lapacke)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenBlas REQUIRED_VARS OpenBlas_LIBRARY OpenBlas_LAPACKE_LIBRARY
                                                         OpenBlas_INCLUDE_DIR)
mark_as_advanced(OpenBlas_INCLUDE_DIR OpenBlas_LIBRARY OpenBlas_LAPACKE_LIBRARY)

if(OpenBlas_FOUND AND NOT TARGET OpenBlas::OpenBlas)
  add_library(OpenBlas::OpenBlas UNKNOWN IMPORTED)
  set_target_properties(OpenBlas::OpenBlas PROPERTIES
    IMPORTED_LOCATION ${OpenBlas_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${OpenBlas_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES ${OpenBlas_LAPACKE_LIBRARY})
endif()
