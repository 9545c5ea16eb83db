# describe_abi.cmake - writes what a shared library offers to programs: its symbols, and the types of
# qnm.h. Needs LIBRARY, OUTPUT, SOURCES (the top of the source tree, with a slash) and ABIDW.

execute_process(COMMAND ${ABIDW}
    --suppressions ${CMAKE_CURRENT_LIST_DIR}/public.suppr --exported-interfaces-only
    --no-elf-needed --no-corpus-path --no-comp-dir-path --no-show-locs --type-id-style hash
    --out-file ${OUTPUT} ${LIBRARY}
    COMMAND_ERROR_IS_FATAL ANY)

# The same wherever it was built.
file(READ ${OUTPUT} description)
string(REPLACE " path='${SOURCES}" " path='" description "${description}")

# The exported variables belong to the library, whatever their size.
string(REGEX REPLACE "(<elf-symbol name='[a-z0-9_]+') size='[0-9]+'" "\\1" description
    "${description}")
file(WRITE ${OUTPUT} "${description}")
