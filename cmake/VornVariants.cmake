# The shared library once more for each higher level of the instruction set. glibc's loader takes the
# highest that the processor has from glibc-hwcaps/ beside the library (ld.so(8)), and the library
# itself where there is none.
set(vorn_variant_levels x86-64-v3 x86-64-v4)

function(vorn_add_variants)
  foreach(level ${vorn_variant_levels})
    set(name vorn_${level})
    vorn_add_library(${name} ${level})
    set_target_properties(${name} PROPERTIES
      OUTPUT_NAME vorn
      LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/glibc-hwcaps/${level}
      INSTALL_RPATH "$ORIGIN/../..")
    add_dependencies(vorn ${name})
    if(VORN_INSTALL)
      install(TARGETS ${name} LIBRARY NAMELINK_SKIP
              DESTINATION ${CMAKE_INSTALL_LIBDIR}/glibc-hwcaps/${level})
    endif()
  endforeach()
endfunction()
