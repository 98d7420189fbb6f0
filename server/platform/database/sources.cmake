# Sources of server/platform/database that live in this folder and its rr/ sub-folders; paths
# start with ${CMAKE_CURRENT_LIST_DIR} because this file is included from its library's
# CMakeLists.txt.
target_sources(orvane_platform PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/database_t.h
    ${CMAKE_CURRENT_LIST_DIR}/database_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/rr/rr_type_t.h
    ${CMAKE_CURRENT_LIST_DIR}/rr/rr_type_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/rr/rr_base_t.h
    ${CMAKE_CURRENT_LIST_DIR}/rr/rr_base_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/rr/rr_context_sync_t.h
    ${CMAKE_CURRENT_LIST_DIR}/rr/rr_context_sync_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/rr/definition/rr_packet_service_t.h
    ${CMAKE_CURRENT_LIST_DIR}/rr/definition/rr_packet_service_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/rr/definition/rr_packet_type_context_sync_t.h
    ${CMAKE_CURRENT_LIST_DIR}/rr/definition/rr_packet_type_context_sync_t.cpp
)

include(${CMAKE_CURRENT_LIST_DIR}/definition/sources.cmake)
