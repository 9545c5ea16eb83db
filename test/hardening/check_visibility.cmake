# check_visibility.cmake - looks in the objects of an archive for names that other objects see
# although they are not in a list. Needs ARCHIVE, EXPECTED (a file with a name a line) and READELF.
#
# Weak names are inline functions and instances of templates. Ours are hidden as all the rest; those
# of the C++ library, whose namespaces say so themselves, are not.

execute_process(COMMAND ${READELF} --symbols --wide ${ARCHIVE}
    OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
file(STRINGS ${EXPECTED} expected)

# A line is "number: value size type binding visibility section name"; UND is defined elsewhere.
string(REGEX MATCHALL " (GLOBAL|WEAK) +DEFAULT +[0-9]+ [^\n]+" lines "${symbols}")
set(visible "")
foreach(line IN LISTS lines)
    string(REGEX REPLACE ".* " "" name "${line}")
    if(line MATCHES " WEAK " AND name MATCHES "^_Z[A-Z]*(St|9__gnu_cxx)")
        continue()
    endif()
    list(APPEND visible ${name})
endforeach()
list(REMOVE_DUPLICATES visible) # a weak name stands in each object that needs it

set(unexpected ${visible})
list(REMOVE_ITEM unexpected ${expected})
foreach(name IN LISTS unexpected)
    message(SEND_ERROR "not hidden: ${name}")
endforeach()
list(LENGTH visible count)
list(LENGTH expected wanted)
if(NOT count EQUAL wanted)
    message(SEND_ERROR "${count} names are visible, of ${wanted} that are exported")
endif()
