# Installs the Python package into a scratch venv (WAY cmake: cmake --install
# with the venv as prefix; WAY pip: pip install of the source tree, taking the
# extension from BUILD_DIR), then imports it from another directory with no
# PYTHONPATH and evaluates one expression.
# Usage: cmake -DWAY=cmake|pip -DPYTHON=... -DBUILD_DIR=... -DSOURCE=... -DWORK=... -P install_and_import.cmake
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/elsewhere)
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err
        WORKING_DIRECTORY ${WORK}/elsewhere)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
    endif()
    set(out "${out}" PARENT_SCOPE)
endfunction()
set(venv ${WORK}/venv)
run(${PYTHON} -m venv --system-site-packages ${venv})
set(clean ${CMAKE_COMMAND} -E env --unset=PYTHONPATH)
if(WAY STREQUAL "cmake")
    run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${venv})
else()
    run(${clean} QMO_SEQ_BUILD_DIR=${BUILD_DIR} PIP_NO_INDEX=1
        ${venv}/bin/python -m pip install --no-build-isolation --no-deps --no-cache-dir ${SOURCE})
endif()
run(${clean} ${venv}/bin/python -c "import numpy as np, qmo_seq as q
x = q.array(np.arange(10, dtype=np.int32))
print(q.__file__, (x * 2)[x > 3].sum().item())")
if(NOT out MATCHES "^${venv}/lib/python[^/]+/site-packages/qmo_seq/__init__.py 78\n$")
    message(FATAL_ERROR "not imported from the venv or a wrong sum: ${out}")
endif()
