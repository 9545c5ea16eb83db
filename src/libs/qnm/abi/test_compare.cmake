# test_compare.cmake - changes an accepted ABI, one place at a time, and expects the comparison to fail
# on each, and to pass without; a failure of abidiff is not taken for a change. Needs ACCEPTED, ABIDIFF
# and WORK (a directory).

file(READ ${ACCEPTED} accepted)

# compare(CHANGED [ABIDIFF]): sets status to how the comparison with a changed copy ends, and said to
# what it says.
function(compare changed)
    if(ARGC GREATER 1)
        set(ABIDIFF ${ARGV1})
    endif()
    file(WRITE ${WORK}/changed.abi "${changed}")
    execute_process(COMMAND ${CMAKE_COMMAND} -DACCEPTED=${ACCEPTED} -DPRESENT=${WORK}/changed.abi
        -DABIDIFF=${ABIDIFF} -P ${CMAKE_CURRENT_LIST_DIR}/compare_abi.cmake
        RESULT_VARIABLE status OUTPUT_VARIABLE said ERROR_VARIABLE said)
    set(status ${status} PARENT_SCOPE)
    set(said "${said}" PARENT_SCOPE)
endfunction()

# expect_seen(WHAT PATTERN REPLACEMENT)
function(expect_seen what pattern replacement)
    string(REGEX REPLACE "${pattern}" "${replacement}" changed "${accepted}")
    if(changed STREQUAL accepted)
        message(SEND_ERROR "${what}: there is no such place")
    endif()
    compare("${changed}")
    if(status EQUAL 0 OR NOT said MATCHES "The ABI is not the accepted one")
        message(SEND_ERROR "${what}: not seen")
    endif()
endfunction()

# expect_failure(WHAT CHANGED ABIDIFF)
function(expect_failure what changed abidiff)
    compare("${changed}" ${abidiff})
    if(status EQUAL 0 OR NOT said MATCHES "abidiff could not compare the ABI")
        message(SEND_ERROR "${what}: not told as such: ${said}")
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

expect_failure("a description that cannot be read" "nothing" ${ABIDIFF})
expect_failure("a program that fails" "${accepted}" false)
expect_failure("a program that is not there" "${accepted}" ${WORK}/none)
