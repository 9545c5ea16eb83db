# install_pc.cmake - the part of `cmake --install` that writes qnm.pc, which names the prefix and so
# cannot be written before that is known. Needs QNM_PC_TEMPLATE, QNM_LIBDIR and QNM_INCLUDEDIR, and
# what the template takes.

cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
foreach(dir IN ITEMS libdir includedir)
    string(TOUPPER "QNM_${dir}" given)
    if(IS_ABSOLUTE "${${given}}")
        set(${dir} "${${given}}")
    else()
        set(${dir} "\${prefix}/${${given}}")
    endif()
endforeach()

cmake_path(ABSOLUTE_PATH QNM_LIBDIR BASE_DIRECTORY "${prefix}" OUTPUT_VARIABLE destination)
set(file "${destination}/pkgconfig/qnm.pc")
message(STATUS "Installing: $ENV{DESTDIR}${file}")
configure_file("${QNM_PC_TEMPLATE}" "$ENV{DESTDIR}${file}" @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${file}")
