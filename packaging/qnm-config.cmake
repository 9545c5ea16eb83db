# qnm-config.cmake - what find_package(qnm) reads: the target qnm::qnm, which needs nothing else.
include("${CMAKE_CURRENT_LIST_DIR}/qnm-targets.cmake")
