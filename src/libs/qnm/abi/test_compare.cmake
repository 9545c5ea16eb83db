# test_compare.cmake - changes an accepted ABI, one place at a time, and expects the comparison to fail
# on each, and to pass without. Needs ACCEPTED, ABIDIFF and WORK (a directory).

file(READ ${ACCEPTED} accepted)

# Sets status to how the comparison with a changed copy ends.
function(compare changed)
    file(WRITE ${WORK}/changed.abi "${changed}")
    execute_process(COMMAND ${CMAKE_COMMAND} -DACCEPTED=${ACCEPTED} -DPRESENT=${WORK}/changed.abi
        -DABIDIFF=${ABIDIFF} -P ${CMAKE_CURRENT_LIST_DIR}/compare_abi.cmake
        RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
    set(status ${status} PARENT_SCOPE)
endfunction()

# expect_seen(WHAT PATTERN REPLACEMENT)
function(expect_seen what pattern replacement)
    string(REGEX REPLACE "${pattern}" "${replacement}" changed "${accepted}")
    if(changed STREQUAL accepted)
        message(SEND_ERROR "${what}: there is no such place")
    endif()
    compare("${changed}")
    if(status EQUAL 0)
        message(SEND_ERROR "${what}: not seen")
    endif()
endfunction()

compare("${accepted}")
if(NOT status EQUAL 0)
    message(SEND_ERROR "a difference is seen where there is none")
endif()
expect_seen("a symbol less"
    "<elf-symbol name='qnm_stdump'[^\n]*\n" "")
expect_seen("a symbol more"
    "(<elf-symbol name='qnm_stdump)('[^\n]*\n)" "\\1\\2\\1_all\\2")
expect_seen("another version of a symbol"
    "(<elf-symbol name='qnm_stdump' version=')QNM_1'" "\\1QNM_2'")
expect_seen("another soname"
    "soname='libqnm.so.1'" "soname='libqnm.so.2'")
expect_seen("a larger record"
    "(<class-decl name='qnm_qnio' size-in-bits=')1024'" "\\11088'")
expect_seen("a field elsewhere"
    "(layout-offset-in-bits=')1000('>\n *<var-decl name='eio_pad1')" "\\11008\\2")
expect_seen("another name of a field"
    "(<var-decl name='eio_)class_code'" "\\1class'")
expect_seen("another value of a result"
    "(<enumerator name='QNM_API_EBUSY' value=')8'" "\\118'")
expect_seen("a parameter less"
    "<parameter type-id='[0-9a-f]+' name='retry_param'/>\n" "")
