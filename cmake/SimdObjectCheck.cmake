# Run as: cmake -DNM=nm -DSTAMP=file -P SimdObjectCheck.cmake OBJECT...
# Fails when an object of a processor-specific file (*_sse2.cpp, *_avx2.cpp)
# defines a weak function: an inline function or template instantiated
# there under the wider instruction set could be the copy the linker keeps
# for the whole library (src/core/simd.h states the rule). Writes STAMP
# when every such object passes.
set(problems "")
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(i RANGE 0 ${last})
  set(object "${CMAKE_ARGV${i}}")
  if(NOT object MATCHES "_(sse2|avx2)\\.cpp\\.o(bj)?$")
    continue()
  endif()
  execute_process(COMMAND ${NM} --defined-only -C ${object}
                  OUTPUT_VARIABLE symbols RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "${NM} failed on ${object}")
  endif()
  string(REPLACE "\n" ";" lines "${symbols}")
  foreach(line IN LISTS lines)
    if(line MATCHES "^[0-9a-fA-F]+ [Ww] (.*)$")
      string(APPEND problems "\n  ${object}: ${CMAKE_MATCH_1}")
    endif()
  endforeach()
endforeach()
if(problems)
  message(FATAL_ERROR "processor-specific objects define weak functions; keep their code in an "
                      "anonymous namespace (src/core/simd.h):${problems}")
endif()
file(WRITE ${STAMP} "checked\n")
