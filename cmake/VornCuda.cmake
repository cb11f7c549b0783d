# The real toolkit: CUDA runtime, cuBLAS, cuRAND and cuDNN behind the one target vorn::cuda.
if(NOT DEFINED CMAKE_CUDA_ARCHITECTURES)
  set(CMAKE_CUDA_ARCHITECTURES "75-real;80-real;90" CACHE STRING "GPU architectures")
endif()
enable_language(CUDA)
find_package(CUDAToolkit REQUIRED)
find_package(CuDnn REQUIRED)

add_library(vorn_cuda INTERFACE)
add_library(vorn::cuda ALIAS vorn_cuda)
set_target_properties(vorn_cuda PROPERTIES EXPORT_NAME cuda)
target_link_libraries(vorn_cuda INTERFACE CUDA::cudart_static CUDA::cublas CUDA::curand
                                          CuDnn::CuDnn)
