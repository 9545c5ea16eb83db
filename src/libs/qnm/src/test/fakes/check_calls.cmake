# check_calls.cmake - compares the calls that the library makes with those that a test can make fail.
# Each function of C or POSIX that the archive leaves undefined has to be in fail_calls.def, or in
# calls_not_failed.txt, which says why. Needs ARCHIVE, NM, CALLS and NOT_FAILED (the two files).

execute_process(COMMAND ${NM} --format=posix ${ARCHIVE}
    OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "\n" ";" symbols "${symbols}")
set(called "")
set(defined "")
foreach(symbol IN LISTS symbols)
    if(symbol MATCHES "^([^ ]+) [Uvw]( |$)")
        list(APPEND called ${CMAKE_MATCH_1})
    elseif(symbol MATCHES "^([^ ]+) [A-Za-z] ")
        list(APPEND defined ${CMAKE_MATCH_1})
    endif()
endforeach()
list(REMOVE_DUPLICATES called)
list(REMOVE_ITEM called ${defined})
# C++, what the compiler calls by itself, and the sanitizers.
list(FILTER called EXCLUDE REGEX
    "^(_Z|_U|_ITM_|_GLOBAL_OFFSET|__(aarch64|cxa|gxx|dso|stack_chk|asan|ubsan|tsan|gcov|errno_location|libc_single)|DW\\.)")

file(STRINGS ${CALLS} rows REGEX "^FAIL_(CALL|ALIAS)\\(")
list(TRANSFORM rows REPLACE "^FAIL_[A-Z]+\\(([a-z0-9_]+),.*$" "\\1")
file(STRINGS ${NOT_FAILED} reasons REGEX "^[^#]")
list(TRANSFORM reasons REPLACE " .*$" "")

list(REMOVE_ITEM called ${rows} ${reasons})
foreach(name IN LISTS called)
    message(SEND_ERROR "neither failed by any test nor said why: ${name}")
endforeach()
