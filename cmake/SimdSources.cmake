# kiv_simd_sources(SOURCES_VAR): gives the processor-specific files of the
# list their instruction set (see src/core/simd.h): *_sse2.cpp are compiled
# for SSE2 and *_avx2.cpp for AVX2, on both x86 targets; everything else
# keeps the target's baseline (no SSE at all on 32-bit x86), and the
# routines are chosen at run time from CPUID. Elsewhere the files are
# dropped from the list.
function(kiv_simd_sources sources_var)
  set(sources ${${sources_var}})
  if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64|i[3-6]86|x86)$")
    list(FILTER sources EXCLUDE REGEX "_(sse2|avx2)\\.cpp$")
    set(${sources_var} ${sources} PARENT_SCOPE)
    return()
  endif()
  # 32-bit callers may come with a stack aligned to 4 bytes only: the
  # vector files realign it where they spill vectors.
  set(stack "")
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(stack -mstackrealign)
  endif()
  foreach(source ${sources})
    if(source MATCHES "_sse2\\.cpp$")
      set_property(SOURCE ${source} APPEND PROPERTY COMPILE_OPTIONS -msse2 ${stack})
    elseif(source MATCHES "_avx2\\.cpp$")
      set_property(SOURCE ${source} APPEND PROPERTY COMPILE_OPTIONS -mavx2 ${stack})
    endif()
  endforeach()
endfunction()
