# Sources of server/platform/logs that live in this folder; paths start with
# ${CMAKE_CURRENT_LIST_DIR} because this file is included from its library's CMakeLists.txt.
target_sources(orvane_platform PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/log_level.h
    ${CMAKE_CURRENT_LIST_DIR}/log_record_t.h
    ${CMAKE_CURRENT_LIST_DIR}/classlogs.h
    ${CMAKE_CURRENT_LIST_DIR}/classlogs.cpp
)
