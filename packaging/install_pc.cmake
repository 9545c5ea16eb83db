# install_pc.cmake - the part of `cmake --install` that writes qnm.pc. The file names the prefix,
# which is only known at this point. Takes QNM_PC_TEMPLATE, QNM_LIBDIR, QNM_INCLUDEDIR and the
# variables of the template.

cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
foreach(dir IN ITEMS libdir includedir)
    string(TOUPPER "QNM_${dir}" variable)
    if(IS_ABSOLUTE "${${variable}}")
        set(${dir} "${${variable}}")
    else()
        set(${dir} "\${prefix}/${${variable}}")
    endif()
endforeach()

cmake_path(ABSOLUTE_PATH QNM_LIBDIR BASE_DIRECTORY "${prefix}" OUTPUT_VARIABLE destination)
set(file "${destination}/pkgconfig/qnm.pc")
message(STATUS "Installing: $ENV{DESTDIR}${file}")
configure_file("${QNM_PC_TEMPLATE}" "$ENV{DESTDIR}${file}" @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${file}")
