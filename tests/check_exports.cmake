# Exported dynamic symbols of the library: every one carries the library's
# prefix, and none of the database core's names is defined here.
# Usage: cmake -DLIBRARY=<libqmo_seq.so> -DNM=<nm> -P check_exports.cmake
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
    OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(count 0)
foreach(line IN LISTS lines)
    if(line MATCHES "^[0-9a-fA-F]+ [TDBR] (.+)$")
        set(name ${CMAKE_MATCH_1})
        # Loader and sanitizer bookkeeping is not the library's.
        if(name MATCHES "^_init$|^_fini$|^__odr_asan|^__asan|^__ubsan")
            continue()
        endif()
        if(NOT name MATCHES "^qmo_seq_")
            message(FATAL_ERROR "exported name without the library prefix: ${name}")
        endif()
        if(name MATCHES "^(qmo_seq_check_bindings|qmo_seq_reset_iterator|qmo_seq_reset_unary_iterator|qmo_seq_reset_binary_iterator|qmo_seq_copy_bitmap)$")
            message(FATAL_ERROR "the library defines a core name: ${name}")
        endif()
        math(EXPR count "${count} + 1")
    endif()
endforeach()
message(STATUS "${count} exported names checked")
