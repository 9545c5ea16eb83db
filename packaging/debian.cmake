# debian.cmake - configures cpack to make the Debian packages libqnm1, libqnm-dev, qnm-tools and
# python3-qnm from the installed components. scripts/package.sh builds and checks them.

# The packages' revision comes from debian/changelog. Both changelogs must be for this version.
file(STRINGS debian/changelog heading LIMIT_COUNT 1)
if(NOT heading MATCHES "^libqnm \\(([^-]+)-([^)]+)\\)" OR NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "debian/changelog begins with \"${heading}\", not with version "
        "${PROJECT_VERSION}")
endif()
set(revision ${CMAKE_MATCH_2})
file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md heading REGEX "^## \\[[0-9]" LIMIT_COUNT 1)
if(NOT heading MATCHES "^## \\[([^]]+)\\] - [0-9-]+$" OR NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "the last release in CHANGELOG.md is \"${heading}\", not version "
        "${PROJECT_VERSION}")
endif()

# qnm_compress(FILE NAME): makes a compressed copy in the build directory, without name and time so
# that it is the same in every build.
function(qnm_compress file name)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    execute_process(COMMAND gzip --best --no-name --stdout ${file}
        OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/${name} COMMAND_ERROR_IS_FATAL ANY)
endfunction()
qnm_compress(${CMAKE_CURRENT_SOURCE_DIR}/debian/changelog changelog.Debian.gz)
qnm_compress(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog.gz)

# qnm_package(COMPONENT PACKAGE SECTION TITLE TEXT [COMPONENT...]): makes a package of the
# components and of the files that every Debian package has, which `cmake --install` leaves out.
function(qnm_package component package section title text)
    set(extra ${component}-debian)
    install(FILES
        debian/copyright
        ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${extra} EXCLUDE_FROM_ALL)
    install(FILES debian/${package}.lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
        RENAME ${package} COMPONENT ${extra} EXCLUDE_FROM_ALL)

    string(TOUPPER ${component} name)
    foreach(part IN ITEMS ${component} ${extra} ${ARGN})
        string(TOUPPER ${part} part_name)
        set(CPACK_COMPONENT_${part_name}_GROUP ${component} PARENT_SCOPE)
    endforeach()
    set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} ${extra} ${ARGN} PARENT_SCOPE)
    set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${package} PARENT_SCOPE)
    set(CPACK_DEBIAN_${name}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(CPACK_DEBIAN_${name}_DESCRIPTION "${title}\n${text}" PARENT_SCOPE)
endfunction()

set(CPACK_COMPONENTS_ALL "")
qnm_package(runtime libqnm1 libs
    "Manager library for Quillnet adapter cards"
    "Quillnet adapter cards carry PCI Express over Ethernet. This library learns
every card that announces itself on up to two Ethernet ports, follows each
path to it, tells the host program of changes, and reads and writes registers
and EEPROMs of the cards.
.
This package has the library, and its configuration in /opt/tarvo/qnm/conf.")
qnm_package(devel libqnm-dev libdevel
    "Manager library for Quillnet adapter cards - development files"
    "Quillnet adapter cards carry PCI Express over Ethernet. The library libqnm
learns the cards on up to two Ethernet ports and reaches into them.
.
This package has what is needed to write programs with it: header, files for
pkg-config and CMake, a manual page for each call, documents and examples."
    doc)
qnm_package(tools qnm-tools net
    "Operator's tools for Quillnet adapter cards"
    "Quillnet adapter cards carry PCI Express over Ethernet. This package has the
command qnmctl, which watches cards and reads and writes their registers and
EEPROMs, and qnm-cardsim, which simulates cards on any Ethernet interface.
.
It also has completion of qnmctl for bash and zsh, the schema of its JSON, a
dissector for Wireshark and tshark, and the manual pages of both commands,
qnm.conf(5) and qnm(7).")
qnm_package(python python3-qnm python
    "Manager library for Quillnet adapter cards - Python module"
    "Quillnet adapter cards carry PCI Express over Ethernet. The library libqnm
learns the cards on up to two Ethernet ports and reaches into them.
.
This package has the module qnm for Python 3, with every call of the library
but qnm_free_idlist, which nobody needs there.")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libqnm)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "libqnm")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own title
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/debian_finish.cmake)
set(CPACK_SET_DESTDIR ON) # the configuration lies outside the prefix
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE libqnm)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${revision})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The libqnm maintainers <maintainers@libqnm.example>")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# dpkg-shlibdeps finds the dependencies on other packages, but not those between these packages.
set(version ${PROJECT_VERSION}-${revision})
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS "libqnm1 (= ${version})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libqnm1 (>= ${version})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libqnm1 (>= ${version}), python3 (>= 3.11)")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS qnm-tools)
set(CPACK_DEBIAN_DEVEL_PACKAGE_SUGGESTS qnm-tools) # has qnm(7), which the pages of calls refer to
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "tshark | wireshark")

# The package has only sources. Its scripts compile them for the installed Python.
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/python3-qnm/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/python3-qnm/prerm)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The trigger has dpkg run ldconfig. cpack would add postinst and postrm scripts that do it as well,
# unless it is given such scripts. It ignores files that do not exist, so these keep its own out.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/triggers ${CMAKE_CURRENT_SOURCE_DIR}/debian/conffiles
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/none/postinst ${CMAKE_CURRENT_SOURCE_DIR}/debian/none/postrm)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
