# Installs the tree aside, builds the example by find_package and by pkg-config, and runs both as far as their usage.
set(work ${TREE}/tests/Install/outside)
file(REMOVE_RECURSE ${work})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${ARGN}: ${status}\n${out}")
  endif()
endfunction()

function(expect_usage program)
  execute_process(COMMAND ${program} RESULT_VARIABLE status ERROR_VARIABLE out)
  if(NOT status EQUAL 2 OR NOT out MATCHES "usage: record-one-event")
    message(FATAL_ERROR "${program}: ${status}\n${out}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${TREE} --prefix ${work}/prefix)
run(${CMAKE_COMMAND} -S ${EXAMPLE} -B ${work}/build -G Ninja -DCMAKE_PREFIX_PATH=${work}/prefix)
run(${CMAKE_COMMAND} --build ${work}/build)
expect_usage(${work}/build/record-one-event)

set(ENV{PKG_CONFIG_PATH} ${work}/prefix/${LIBDIR}/pkgconfig)
set(ENV{LD_LIBRARY_PATH} ${work}/prefix/${LIBDIR})
run(sh -c "c++ -std=c++20 ${EXAMPLE}/main.cpp -o ${work}/by-pkg-config $(pkg-config --cflags --libs tavi)")
expect_usage(${work}/by-pkg-config)
