# debian_finish.cmake - cpack runs this on the staged files before it packs them. It makes folders
# readable for all, whatever the umask was, and compresses manual pages as Debian does, without name
# and time so that every build makes the same files.
execute_process(COMMAND find "${CPACK_TEMPORARY_DIRECTORY}" -type d -exec chmod 755 {} +
    COMMAND_ERROR_IS_FATAL ANY)

file(GLOB pages "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man*/*")
foreach(page IN LISTS pages)
    if(IS_SYMLINK "${page}") # another name of the same page
        file(READ_SYMLINK "${page}" target)
        file(CREATE_LINK "${target}.gz" "${page}.gz" SYMBOLIC)
        file(REMOVE "${page}")
    else()
        execute_process(COMMAND gzip --best --no-name "${page}" COMMAND_ERROR_IS_FATAL ANY)
    endif()
endforeach()
