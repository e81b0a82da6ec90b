# Decides whether the Python module is built. VEKR_BUILD_PYTHON is ON, OFF or AUTO (the
# default): AUTO builds it when an interpreter that imports numpy and pybind11 is found.
# Interpreters are tried in this order: Python3_EXECUTABLE when given, /usr/bin/python3, then
# the python3 on PATH. The system interpreter comes first because the one on PATH (pyenv, a
# virtual environment) often cannot see the system's numpy and pybind11 packages.
set(VEKR_BUILD_PYTHON AUTO CACHE STRING
    "Build the Python module: ON, OFF, or AUTO (when Python 3 with numpy and pybind11 is found)")
set_property(CACHE VEKR_BUILD_PYTHON PROPERTY STRINGS AUTO ON OFF)

set(vekr_python_found FALSE)
if(NOT VEKR_BUILD_PYTHON STREQUAL "OFF")
    set(candidates)
    if(Python3_EXECUTABLE)
        list(APPEND candidates ${Python3_EXECUTABLE})
    else()
        find_program(vekr_path_python3 NAMES python3)
        list(APPEND candidates /usr/bin/python3 ${vekr_path_python3})
    endif()
    foreach(candidate IN LISTS candidates)
        if(NOT EXISTS ${candidate})
            continue()
        endif()
        execute_process(
            COMMAND ${candidate} -c "import numpy, pybind11; print(pybind11.get_cmake_dir())"
            RESULT_VARIABLE probe_result OUTPUT_VARIABLE probe_output ERROR_QUIET
            OUTPUT_STRIP_TRAILING_WHITESPACE)
        if(probe_result EQUAL 0)
            set(Python3_EXECUTABLE ${candidate} CACHE FILEPATH "Interpreter of the Python module")
            set(VEKR_PYBIND11_DIR ${probe_output})
            set(vekr_python_found TRUE)
            break()
        endif()
    endforeach()
    if(NOT vekr_python_found)
        set(missing "no Python 3 interpreter that imports numpy and pybind11 (tried: ${candidates}); install python3-dev python3-numpy pybind11-dev python3-pybind11")
        if(VEKR_BUILD_PYTHON STREQUAL "AUTO")
            message(STATUS "Python module: off, ${missing}")
        else()
            message(FATAL_ERROR "VEKR_BUILD_PYTHON is ON but there is ${missing}")
        endif()
    else()
        message(STATUS "Python module: on, for ${Python3_EXECUTABLE}")
    endif()
else()
    message(STATUS "Python module: off (VEKR_BUILD_PYTHON=OFF)")
endif()
