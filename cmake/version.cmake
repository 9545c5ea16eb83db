# version.cmake - reads the version from the public header, where host programs see it too. All
# other files take it from project().
set(header ${CMAKE_CURRENT_LIST_DIR}/../src/libs/qnm/src/main/qnm.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})

set(qnm_version "")
foreach(part IN ITEMS MAJOR MINOR PATCH)
    file(STRINGS ${header} line REGEX "^#define QNM_VERSION_${part} ")
    list(LENGTH line count)
    if(NOT count EQUAL 1 OR NOT line MATCHES "^#define QNM_VERSION_${part} ([0-9]+)( |$)")
        message(FATAL_ERROR "qnm.h does not say the version: there should be one line "
            "\"#define QNM_VERSION_${part} NUMBER\", and there is \"${line}\"")
    endif()
    list(APPEND qnm_version ${CMAKE_MATCH_1})
endforeach()
list(JOIN qnm_version "." qnm_version)
unset(header)
unset(line)
unset(count)
