# cmake -P script: install, compile the consumer with pkg-config, run it.
file(REMOVE_RECURSE ${PREFIX})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

file(GLOB_RECURSE pcfile ${PREFIX}/*/qordsp.pc)
if(NOT pcfile)
  message(FATAL_ERROR "qordsp.pc was not installed")
endif()
get_filename_component(pcdir ${pcfile} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
run(pkg-config --cflags qordsp)
string(STRIP "${RUN_OUTPUT}" cflags)
run(pkg-config --libs qordsp)
string(STRIP "${RUN_OUTPUT}" libs)
separate_arguments(cflags UNIX_COMMAND "${cflags}")
separate_arguments(libs UNIX_COMMAND "${libs}")
separate_arguments(extra UNIX_COMMAND "${FLAGS}")

set(exe ${PREFIX}/consumer)
run(${CXX} -std=c++20 ${extra} ${cflags} ${SOURCE} ${libs} -o ${exe})
get_filename_component(libdir ${pcdir} DIRECTORY)
set(ENV{LD_LIBRARY_PATH} ${libdir})
run(${exe})
message(STATUS "pkg-config consumer: ${RUN_OUTPUT}")

# The same program through the CMake package.
set(cmake_build ${PREFIX}/cmake-consumer)
run(${CMAKE_COMMAND} -S ${CONSUMER_PROJECT} -B ${cmake_build} -DCMAKE_PREFIX_PATH=${PREFIX}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_FLAGS=${FLAGS} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${cmake_build})
run(${cmake_build}/consumer)
message(STATUS "CMake package consumer: ${RUN_OUTPUT}")
