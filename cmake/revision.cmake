# Revision number and build date for the version record, fixed when the build is configured.

# The revision is the number of commits on the checked-out branch; outside a git checkout
# it falls back to 1. Override with -DVLKR_REVISION=N.
if(NOT DEFINED VLKR_REVISION)
    find_package(Git QUIET)
    set(_rev 1)
    if(GIT_FOUND)
        execute_process(COMMAND ${GIT_EXECUTABLE} rev-list --count HEAD
                        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                        OUTPUT_VARIABLE _count OUTPUT_STRIP_TRAILING_WHITESPACE
                        RESULT_VARIABLE _result ERROR_QUIET)
        if(_result EQUAL 0 AND _count MATCHES "^[1-9][0-9]*$")
            set(_rev ${_count})
        endif()
    endif()
    set(VLKR_REVISION ${_rev})
endif()

# "Mmm d yyyy" with single blanks. string(TIMESTAMP) honours SOURCE_DATE_EPOCH, so a
# reproducible build gets the date of its sources.
string(TIMESTAMP _month "%b" UTC)
string(TIMESTAMP _day "%d" UTC)
string(TIMESTAMP _year "%Y" UTC)
string(REGEX REPLACE "^0" "" _day "${_day}")
set(VLKR_BUILD_DATE "${_month} ${_day} ${_year}")
message(STATUS "vlkr revision ${VLKR_REVISION}, build date ${VLKR_BUILD_DATE}")
