# Sources of server/context_sync/context_sync/watcher that live in this folder; paths start with
# ${CMAKE_CURRENT_LIST_DIR} because this file is included from its library's CMakeLists.txt.
target_sources(context_sync PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/context_monitor_t.h
    ${CMAKE_CURRENT_LIST_DIR}/context_monitor_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/file_hash_batch_t.h
    ${CMAKE_CURRENT_LIST_DIR}/file_hash_batch_t.cpp
)
