# install_conf.cmake - the part of `cmake --install` that puts the sample configuration where the
# library looks for it. A file that is already there is replaced only if it equals the sample of the
# last installation, which is still below the prefix. Takes three directories: QNM_SAMPLES (the new
# samples), QNM_CONFDIR (the destination) and QNM_LAST_SAMPLES (the last samples).

# Sets "same" to whether both are files with the same content.
function(compare a b)
    set(same FALSE PARENT_SCOPE)
    if(EXISTS "${a}" AND EXISTS "${b}")
        file(SHA256 "${a}" a_sum)
        file(SHA256 "${b}" b_sum)
        if(a_sum STREQUAL b_sum)
            set(same TRUE PARENT_SCOPE)
        endif()
    endif()
endfunction()

# Sets "writable" to whether files can be created in the directory, or the directory itself.
function(look_if_writable dir)
    cmake_path(ABSOLUTE_PATH dir) # so that the loop ends at the root at the latest
    while(NOT EXISTS "${dir}")
        cmake_path(GET dir PARENT_PATH dir)
    endwhile()
    execute_process(COMMAND test -w "${dir}" RESULT_VARIABLE status)
    set(writable FALSE PARENT_SCOPE)
    if(status EQUAL 0)
        set(writable TRUE PARENT_SCOPE)
    endif()
endfunction()

cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
cmake_path(ABSOLUTE_PATH QNM_CONFDIR BASE_DIRECTORY "${prefix}")
cmake_path(ABSOLUTE_PATH QNM_LAST_SAMPLES BASE_DIRECTORY "${prefix}")
look_if_writable("$ENV{DESTDIR}${QNM_CONFDIR}")
if(NOT writable)
    # An ordinary user installs below a private prefix, where the samples are.
    message(WARNING "$ENV{DESTDIR}${QNM_CONFDIR} cannot be written, so no configuration is "
        "installed there. The samples are in $ENV{DESTDIR}${QNM_LAST_SAMPLES}; another place for "
        "the configuration is chosen by -DQNM_INSTALL_CONFDIR=DIRECTORY when configuring.")
    return()
endif()

foreach(name IN ITEMS qnm.conf qnm_log4c.properties)
    set(present "$ENV{DESTDIR}${QNM_CONFDIR}/${name}")
    compare("${present}" "$ENV{DESTDIR}${QNM_LAST_SAMPLES}/${name}")
    if(same OR NOT (EXISTS "${present}" OR IS_SYMLINK "${present}"))
        file(INSTALL "${QNM_SAMPLES}/${name}" DESTINATION "${QNM_CONFDIR}")
        continue()
    endif()
    compare("${present}" "${QNM_SAMPLES}/${name}")
    if(NOT same)
        message(STATUS "Kept: ${present}, which was edited; "
            "the sample is $ENV{DESTDIR}${QNM_LAST_SAMPLES}/${name}")
    endif()
endforeach()
