# machine.cmake - refuses machines that the library cannot work on, before dependencies are searched
# and anything is compiled. qnm_rbtree.h and qnm_frame.h check the same for builds without CMake.

# Also true with -m32 and with the x32 ABI.
if(CMAKE_SIZEOF_VOID_P AND NOT CMAKE_SIZEOF_VOID_P EQUAL 8)
    math(EXPR bits "${CMAKE_SIZEOF_VOID_P} * 8")
    message(FATAL_ERROR "libqnm cannot be built for a machine or an ABI of ${bits} bits: "
        "its tables have each card's 64-bit ID in the place of a pointer, as their key, and a "
        "pointer of ${bits} bits would cut it off.")
endif()

if(CMAKE_CXX_BYTE_ORDER STREQUAL "BIG_ENDIAN")
    message(FATAL_ERROR "libqnm cannot be built for a big-endian machine: "
        "cards send and take register values and PCI fields with the little end first, and the "
        "library passes them on as they lie, so every such number would be reversed.")
endif()
