# qnm-config.cmake - read by find_package(qnm); defines the target qnm::qnm, which has no
# dependencies.
include("${CMAKE_CURRENT_LIST_DIR}/qnm-targets.cmake")
