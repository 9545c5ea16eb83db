# check_exports.cmake - compares what a shared library exports with a list, both ways, and checks
# its soname. Needs LIBRARY, EXPECTED (a file with a name a line), NM and READELF.

set(soname "libqnm.so.1")

execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY}
    OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${READELF} --dynamic --wide ${LIBRARY}
    OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
file(STRINGS ${EXPECTED} expected)

# A line is "name@@version type address size"; the version itself is an absolute symbol.
string(REPLACE "\n" ";" symbols "${symbols}")
set(exported "")
foreach(symbol IN LISTS symbols)
    if(symbol MATCHES "^([^@ ]+)(@[^ ]*)? ([A-Za-z])" AND NOT CMAKE_MATCH_3 STREQUAL "A")
        list(APPEND exported ${CMAKE_MATCH_1})
    endif()
endforeach()

set(missing ${expected})
list(REMOVE_ITEM missing ${exported})
set(unexpected ${exported})
list(REMOVE_ITEM unexpected ${expected})
foreach(name IN LISTS missing)
    message(SEND_ERROR "not exported: ${name}")
endforeach()
foreach(name IN LISTS unexpected)
    message(SEND_ERROR "exported by mistake: ${name}")
endforeach()

if(NOT dynamic MATCHES "\\(SONAME\\)[^\n]*\\[([^]\n]*)\\]" OR NOT CMAKE_MATCH_1 STREQUAL soname)
    message(SEND_ERROR "soname is \"${CMAKE_MATCH_1}\", not \"${soname}\"")
endif()

list(LENGTH exported count)
message(STATUS "${count} names exported by ${soname}")
