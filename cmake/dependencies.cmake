# dependencies.cmake - finds the dependencies of the chosen parts. It searches for all of them
# before it fails, so that one message names everything that is missing, the Debian packages that
# have it, and the options that build without it.

set(qnm_missing "")

# qnm_note(PART PACKAGE FOUND): adds the package to the missing ones unless the variable FOUND is
# true.
macro(qnm_note part package found)
    if(NOT ${found})
        list(APPEND qnm_missing_${part} ${package})
        list(APPEND qnm_missing ${package})
    endif()
endmacro()

# qnm_need_module(PART PREFIX MODULE PACKAGE): finds a module by pkg-config and makes the target
# PkgConfig::PREFIX.
macro(qnm_need_module part prefix module package)
    if(PkgConfig_FOUND)
        pkg_check_modules(${prefix} IMPORTED_TARGET ${module})
    endif()
    qnm_note(${part} "${package}" "${prefix}_FOUND")
endmacro()

# qnm_need(PART NAME PACKAGE [OPTION...]): finds a package by find_package(), which gets the
# options.
macro(qnm_need part name package)
    find_package(${name} ${ARGN} QUIET)
    qnm_note(${part} "${package}" "${name}_FOUND")
endmacro()

# Both -dev packages that the library needs install pkg-config too.
find_package(PkgConfig QUIET)
qnm_note(library pkg-config PkgConfig_FOUND)
qnm_need(library Threads libc6-dev)
qnm_need_module(library PCAP libpcap libpcap-dev)
qnm_need_module(library LOG4CXX liblog4cxx liblog4cxx-dev)

if(QNM_BUILD_TOOLS)
    qnm_need(tools CLI11 libcli11-dev)
    qnm_need(tools nlohmann_json nlohmann-json3-dev)
    qnm_need_module(tools TOMLPLUSPLUS tomlplusplus libtomlplusplus-dev)
    qnm_need_module(tools NCURSESW ncursesw libncurses-dev)
    qnm_need_module(tools LIBARCHIVE libarchive libarchive-dev)
endif()

if(QNM_BUILD_PYTHON)
    qnm_need(python Python3 "python3 (3.11 or later)" 3.11 COMPONENTS Interpreter)
endif()

if(QNM_BUILD_DOCS)
    find_program(QNM_DOXYGEN doxygen)
    qnm_note(docs doxygen QNM_DOXYGEN)
    qnm_need(docs Python3 python3 COMPONENTS Interpreter)
endif()

if(BUILD_TESTING)
    qnm_need(tests GTest libgtest-dev)
    if(NOT TARGET GTest::gmock)
        qnm_note(tests libgmock-dev GMOCK_FOUND)
    endif()
endif()

if(QNM_BUILD_BENCH)
    qnm_need(benchmarks benchmark libbenchmark-dev)
endif()

if(qnm_missing)
    set(groups "")
    set(text "Not all was found that is needed. Missing are, by their names on Debian:\n")
    foreach(part IN ITEMS
            "library|library||build" "tools|tools|QNM_BUILD_TOOLS|build"
            "python|Python module|QNM_BUILD_PYTHON|build" "docs|manual pages|QNM_BUILD_DOCS|docs"
            "tests|tests|BUILD_TESTING|test" "benchmarks|benchmarks|QNM_BUILD_BENCH|bench")
        string(REGEX MATCH "^(.*)\\|(.*)\\|(.*)\\|(.*)$" part "${part}")
        if(qnm_missing_${CMAKE_MATCH_1})
            list(JOIN qnm_missing_${CMAKE_MATCH_1} " " packages)
            string(APPEND text "  for the ${CMAKE_MATCH_2}: ${packages}")
            if(CMAKE_MATCH_3)
                string(APPEND text "; -D${CMAKE_MATCH_3}=OFF does without")
            endif()
            string(APPEND text "\n")
            list(APPEND groups ${CMAKE_MATCH_4})
        endif()
    endforeach()
    list(REMOVE_DUPLICATES groups)
    list(JOIN groups " " groups)
    message(FATAL_ERROR "${text}On Debian, this installs it: scripts/install-deps.sh ${groups}")
endif()
