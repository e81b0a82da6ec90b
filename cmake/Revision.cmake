# The build revision is the number of commits in the source history, or 0 outside a checkout.
set(VEKR_REVISION 0)
find_package(Git QUIET)
if(GIT_FOUND)
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-list --count HEAD
                    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                    OUTPUT_VARIABLE _vekr_rev OUTPUT_STRIP_TRAILING_WHITESPACE
                    RESULT_VARIABLE _vekr_rev_status ERROR_QUIET)
    if(_vekr_rev_status EQUAL 0 AND _vekr_rev MATCHES "^[0-9]+$")
        set(VEKR_REVISION ${_vekr_rev})
    endif()
endif()
