# compare_abi.cmake - fails when what a library offers is not what was accepted, additions included.
# Needs ACCEPTED and PRESENT (descriptions) and ABIDIFF.

foreach(description IN ITEMS "${ACCEPTED}" "${PRESENT}")
    if(NOT EXISTS "${description}")
        message(FATAL_ERROR "there is no description \"${description}\"")
    endif()
endforeach()

# By default abidiff passes over changes that it deems harmless, another name of a field among them;
# they break programs when these are compiled again.
execute_process(COMMAND ${ABIDIFF} --harmless --redundant ${ACCEPTED} ${PRESENT}
    RESULT_VARIABLE status OUTPUT_VARIABLE report ERROR_VARIABLE report)
if(NOT status EQUAL 0)
    message("${report}")
    # Of the bits of its status, 4 and 8 stand for a change; others, and words, for a failure.
    if(NOT status MATCHES "^(4|8|12)$")
        message(FATAL_ERROR "abidiff could not compare the ABI: ${status}")
    endif()
    message(FATAL_ERROR "The ABI is not the accepted one. If the change is wanted: "
        "cmake --build --preset release --target accept-abi, and read in CONTRIBUTING.md what "
        "else it takes.")
endif()
