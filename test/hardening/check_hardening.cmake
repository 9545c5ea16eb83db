# check_hardening.cmake - reads back from a binary what the compiler and the linker were told. Needs
# BINARY, its TYPE (EXECUTABLE or SHARED_LIBRARY), NM and READELF.

execute_process(COMMAND ${READELF} --file-header --program-headers --dynamic --wide ${BINARY}
    OUTPUT_VARIABLE elf COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${NM} -D --undefined-only --format=posix ${BINARY}
    OUTPUT_VARIABLE calls COMMAND_ERROR_IS_FATAL ANY)

# expect(TEXT PATTERN MESSAGE): the pattern is found in the text.
function(expect text pattern message)
    if(NOT text MATCHES "${pattern}")
        message(SEND_ERROR "${BINARY}: ${message}")
    endif()
endfunction()

expect("${elf}" "\n +GNU_RELRO " "no RELRO segment")
expect("${elf}" "\\(FLAGS\\)[^\n]* BIND_NOW" "not bound when loaded, so that RELRO is not full")
expect("${elf}" "\n +GNU_STACK [^\n]* RW +0x" "an executable stack")
expect("${elf}" "Type: +DYN " "at a fixed address")
if(TYPE STREQUAL "EXECUTABLE")
    expect("${elf}" "\\(FLAGS_1\\)[^\n]* PIE" "no position-independent executable")
endif()
if(elf MATCHES "\\(TEXTREL\\)")
    message(SEND_ERROR "${BINARY}: code that is written when loaded")
endif()
expect("\n${calls}" "\n__stack_chk_fail[@ ]" "no stack protector")
expect("\n${calls}" "\n__[a-z]+_chk[@ ]" "no call that _FORTIFY_SOURCE checks")
