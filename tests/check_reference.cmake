# docs/reference.md is exactly what the registry generates, and every name the
# header declares (the core's included) appears in it.
# Usage: cmake -DGENERATOR=<qmo_seq_reference> -DREFERENCE=<docs/reference.md> -DOUT=<file>
#              -DHEADER=<qmo_seq.h> -DCC=<compiler> -P check_reference.cmake
execute_process(COMMAND ${GENERATOR} ${OUT} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${GENERATOR} failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${OUT} ${REFERENCE} RESULT_VARIABLE differs)
if(differs)
    message(FATAL_ERROR "docs/reference.md is out of date: cmake --build <build> --target reference")
endif()

execute_process(
    COMMAND ${CC} -E -P -DQMO_SEQ_API=QMO_SEQ_DECLARED -DQMO_SEQ_CORE_API=QMO_SEQ_DECLARED ${HEADER}
    OUTPUT_VARIABLE expanded RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "cannot preprocess ${HEADER}")
endif()
string(REPLACE ";" "@" expanded "${expanded}")
string(REGEX MATCHALL "QMO_SEQ_DECLARED[^@(]*[ *]([A-Za-z_][A-Za-z0-9_]*) *[(@]" declarations "${expanded}")
file(READ ${REFERENCE} reference)
set(missing "")
foreach(d IN LISTS declarations)
    string(REGEX REPLACE ".*[ *]([A-Za-z_][A-Za-z0-9_]*) *[(@]$" "\\1" name "${d}")
    string(FIND "${reference}" " ${name}" at)
    if(at EQUAL -1)
        string(FIND "${reference}" "*${name}" at)
    endif()
    if(at EQUAL -1)
        list(APPEND missing ${name})
    endif()
endforeach()
if(missing)
    message(FATAL_ERROR "declared but not in docs/reference.md: ${missing}")
endif()
list(LENGTH declarations n)
message(STATUS "docs/reference.md is current and names all ${n} declarations")
