# Test script (cmake -P): installs the build into PREFIX, checks the
# installed files, then configures, builds and runs examples/ against that
# prefix (C example through pkg-config, C++ example through find_package).
# Arguments: BUILD_DIR, SOURCE_DIR, PREFIX, TOOLCHAIN (may be empty), CORPUS.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${PREFIX})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

file(GLOB_RECURSE libs ${PREFIX}/lib*/libKivJPEG.so*)
file(GLOB_RECURSE pcs ${PREFIX}/*/kivjpeg.pc)
file(GLOB_RECURSE configs ${PREFIX}/*/KivJPEGConfig.cmake)
list(LENGTH libs nlibs)
if(nlibs LESS 3)
  message(FATAL_ERROR "expected libKivJPEG.so, .so.1 and .so.1.0.0, found: ${libs}")
endif()
foreach(f include/kivjpeg.h include/kivjpeg.hpp bin/kivjpeg share/man/man1/kivjpeg.1)
  if(NOT EXISTS ${PREFIX}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
if(NOT pcs OR NOT configs)
  message(FATAL_ERROR "pkg-config file or CMake package missing: '${pcs}' '${configs}'")
endif()
list(GET pcs 0 pc)
get_filename_component(pcdir ${pc} DIRECTORY)

# The installed tool finds the installed library through its run path.
run(${PREFIX}/bin/kivjpeg --help)

set(ex ${PREFIX}-examples)
file(REMOVE_RECURSE ${ex})
set(ENV{PKG_CONFIG_PATH} ${pcdir})
set(args -S ${SOURCE_DIR}/examples -B ${ex} -DCMAKE_PREFIX_PATH=${PREFIX})
if(TOOLCHAIN)
  list(APPEND args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
endif()
run(${CMAKE_COMMAND} ${args})
run(${CMAKE_COMMAND} --build ${ex})

# Running them needs the decoder and encoder stages of the library.
run(${ex}/encode_example ${ex}/gradient)
run(${ex}/decode_example ${CORPUS}/samples/testorig.jpg ${ex}/testorig.ppm)
file(SIZE ${ex}/testorig.ppm size)
if(NOT size EQUAL 101484)
  message(FATAL_ERROR "decode_example wrote ${size} bytes, expected 227x149x3 + header")
endif()
message(STATUS "install check passed: ${PREFIX}")
