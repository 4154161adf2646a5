# The shared library exports exactly what the public header declares with
# QMO_SEQ_API: every declared name is defined and visible, and nothing else
# (none of the core's names, no internal helper) leaks out.
# Usage: cmake -DLIBRARY=<libqmo_seq.so> -DHEADER=<qmo_seq.h> -DCC=<compiler> -DNM=<nm> -P check_exports.cmake
include(${CMAKE_CURRENT_LIST_DIR}/declared_names.cmake)
qmo_declared_names(declared ${HEADER} ${CC} FALSE)

execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(exported "")
foreach(line IN LISTS lines)
    if(line MATCHES "^[0-9a-fA-F]+ [TDBRVW] (.+)$")
        set(name ${CMAKE_MATCH_1})
        # Loader and sanitizer bookkeeping is not the library's.
        if(NOT name MATCHES "^(_init|_fini|__odr_asan.*|__asan.*|__ubsan.*)$")
            list(APPEND exported ${name})
        endif()
    endif()
endforeach()

set(missing ${declared})
list(REMOVE_ITEM missing ${exported})
set(undeclared ${exported})
list(REMOVE_ITEM undeclared ${declared})
list(LENGTH declared n_declared)
if(missing)
    message(FATAL_ERROR "declared but not exported: ${missing}")
endif()
if(undeclared)
    message(FATAL_ERROR "exported but not declared: ${undeclared}")
endif()
message(STATUS "${n_declared} declared names, all exported, nothing else")
