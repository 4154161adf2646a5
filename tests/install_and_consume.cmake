# Installs the built project into a scratch prefix, builds a consumer with
# find_package against it (shared and static) and runs both.
# Usage: cmake -DBUILD_DIR=... -DWORK=... -DSOURCE=... -P install_and_consume.cmake
file(REMOVE_RECURSE ${WORK})
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
    endif()
endfunction()
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK}/prefix)
run(${CMAKE_COMMAND} -S ${SOURCE}/tests/consumer -B ${WORK}/build -DCMAKE_PREFIX_PATH=${WORK}/prefix
    -DC_API_SOURCE=${SOURCE}/tests/c_api.c)
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${WORK}/build/with_qmo_seq)
run(${WORK}/build/with_qmo_seq_static)
