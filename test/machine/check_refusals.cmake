# Reads MACHINE as if it were for other machines, by what CMake says of them.
#   usage: cmake -DMACHINE=FILE -P check_refusals.cmake

# check(POINTER ORDER [PATTERN]): refused with words that match the pattern, or not refused.
function(check pointer order)
    execute_process(
        COMMAND ${CMAKE_COMMAND} -DCMAKE_SIZEOF_VOID_P=${pointer} -DCMAKE_CXX_BYTE_ORDER=${order}
            -P ${MACHINE}
        RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    string(REGEX REPLACE "[ \n]+" " " output "${output}") # CMake breaks its lines
    if(ARGC EQUAL 2 AND NOT (result EQUAL 0 AND output STREQUAL ""))
        message(SEND_ERROR "${pointer} bytes, ${order}: refused: ${output}")
    elseif(ARGC GREATER 2 AND (result EQUAL 0 OR NOT output MATCHES "${ARGV2}"))
        message(SEND_ERROR "${pointer} bytes, ${order}: not refused by \"${ARGV2}\": ${output}")
    endif()
endfunction()

check(8 LITTLE_ENDIAN)
check(8 "")
check(4 LITTLE_ENDIAN "ABI of 32 bits: its tables have each card's 64-bit ID")
check(4 BIG_ENDIAN "ABI of 32 bits: ")
check(8 BIG_ENDIAN "big-endian machine: cards send .* with the little end first")
