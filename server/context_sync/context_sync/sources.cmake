# Sources of server/context_sync/context_sync that live in this folder; paths start with
# ${CMAKE_CURRENT_LIST_DIR} because this file is included from its library's CMakeLists.txt.
target_sources(context_sync PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/context_background_image_t.h
    ${CMAKE_CURRENT_LIST_DIR}/context_background_image_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/context_file_handler_t.h
    ${CMAKE_CURRENT_LIST_DIR}/context_file_handler_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/context_sync_t.h
    ${CMAKE_CURRENT_LIST_DIR}/context_sync_t.cpp
)
