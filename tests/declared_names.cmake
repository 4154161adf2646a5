# qmo_declared_names(OUT HEADER CC WITH_CORE): the names the public header
# declares with QMO_SEQ_API (and, when WITH_CORE is true, QMO_SEQ_CORE_API),
# read from its preprocessed text; each once.
function(qmo_declared_names out header cc with_core)
    set(core_define -DQMO_SEQ_CORE_API=)
    if(with_core)
        set(core_define -DQMO_SEQ_CORE_API=QMO_SEQ_DECLARED)
    endif()
    execute_process(COMMAND ${cc} -E -P -DQMO_SEQ_API=QMO_SEQ_DECLARED ${core_define} ${header}
        OUTPUT_VARIABLE expanded RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "cannot preprocess ${header}")
    endif()
    # Semicolons would split CMake list items: declarations end in "@" here.
    string(REPLACE ";" "@" expanded "${expanded}")
    string(REGEX MATCHALL "QMO_SEQ_DECLARED[^@(]*[ *]([A-Za-z_][A-Za-z0-9_]*) *[(@]" declarations "${expanded}")
    set(names "")
    foreach(d IN LISTS declarations)
        string(REGEX REPLACE ".*[ *]([A-Za-z_][A-Za-z0-9_]*) *[(@]$" "\\1" name "${d}")
        list(APPEND names ${name})
    endforeach()
    list(REMOVE_DUPLICATES names)
    set(${out} ${names} PARENT_SCOPE)
endfunction()
