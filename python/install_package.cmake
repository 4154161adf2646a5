# Installs the package qmo_seq (run by cmake --install; python/CMakeLists.txt
# sets the QMO_SEQ_PYTHON* variables). The site directory is
# QMO_SEQ_PYTHON_INSTALL_DIR when given (relative to the prefix or absolute);
# else, when the prefix is a venv, its interpreter's; else the build
# interpreter's when it lies under the prefix (Debian's /usr/local); else the
# prefix's lib/pythonX.Y/site-packages.
set(site "${QMO_SEQ_PYTHON_INSTALL_DIR}")
if(NOT site)
    set(python "${QMO_SEQ_PYTHON}")
    if(EXISTS "${CMAKE_INSTALL_PREFIX}/pyvenv.cfg" AND EXISTS "${CMAKE_INSTALL_PREFIX}/bin/python3")
        set(python "${CMAKE_INSTALL_PREFIX}/bin/python3")
    endif()
    execute_process(COMMAND "${python}" -c "import sysconfig; print(sysconfig.get_path('platlib'))"
        OUTPUT_VARIABLE site OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    cmake_path(IS_PREFIX CMAKE_INSTALL_PREFIX "${site}" NORMALIZE inside)
    if(NOT inside)
        set(site "lib/python${QMO_SEQ_PYTHON_VERSION}/site-packages")
    endif()
endif()
cmake_path(ABSOLUTE_PATH site BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE)
file(GLOB sources "${QMO_SEQ_PYTHON_SOURCES}/*.py" "${QMO_SEQ_PYTHON_SOURCES}/py.typed")
file(INSTALL DESTINATION "${site}/qmo_seq" TYPE FILE FILES ${sources})
file(INSTALL DESTINATION "${site}/qmo_seq" TYPE MODULE FILES "${QMO_SEQ_PYTHON_MODULE}")
