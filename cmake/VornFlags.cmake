# How vorn's own targets are compiled; none of it reaches a consumer.
#
# Contraction is off because both forms round every product and every sum; kernels that fuse say
# fmaf. NDEBUG is never defined, whatever the build type or an enclosing project says: assertions
# guard labels in every build.
set(vorn_host_flags -ffp-contract=off -fno-math-errno -fno-trapping-math
                    -Wall -Wextra -Wno-sign-compare -Wno-unknown-pragmas)
list(JOIN vorn_host_flags "," vorn_host_flags_for_nvcc)

# A target may have an instruction set of its own.
set(vorn_march $<TARGET_PROPERTY:VORN_MARCH>)
set(vorn_march -march=$<IF:$<BOOL:${vorn_march}>,${vorn_march},${VORN_MARCH}>)

add_library(vorn_flags INTERFACE)
target_compile_options(vorn_flags INTERFACE
  "$<$<COMPILE_LANGUAGE:CXX>:${vorn_march}>"
  "$<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=${vorn_march}>"
  "$<$<COMPILE_LANGUAGE:CXX>:${vorn_host_flags}>"
  "$<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CONFIG:Release>>:-O3>"
  "$<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=${vorn_host_flags_for_nvcc}>"
  "$<$<COMPILE_LANGUAGE:CUDA>:--fmad=false>"
  # A host function that a kernel calls by way of a rule becomes a bare exit in machine code.
  "$<$<COMPILE_LANGUAGE:CUDA>:-Werror=cross-execution-space-call>"
  "-UNDEBUG")

# Files with kernels are CUDA where the toolkit is the real one, and C++ on the simulated one.
function(vorn_compile_as_cuda target)
  if(VORN_GPU STREQUAL "cuda")
    get_target_property(sources ${target} SOURCES)
    list(FILTER sources INCLUDE REGEX "\\.cpp$")
    set_source_files_properties(${sources} PROPERTIES LANGUAGE CUDA)
    set_target_properties(${target} PROPERTIES CUDA_STANDARD 17 CUDA_STANDARD_REQUIRED ON
                                               LINKER_LANGUAGE CXX)
  endif()
endfunction()
