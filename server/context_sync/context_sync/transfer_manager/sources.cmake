# Sources of server/context_sync/context_sync/transfer_manager that live in this folder; paths start with
# ${CMAKE_CURRENT_LIST_DIR} because this file is included from its library's CMakeLists.txt.
target_sources(context_sync PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/chunk_codec_t.h
    ${CMAKE_CURRENT_LIST_DIR}/chunk_codec_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/chunk_cache_t.h
    ${CMAKE_CURRENT_LIST_DIR}/chunk_cache_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/path_safety_t.h
    ${CMAKE_CURRENT_LIST_DIR}/path_safety_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/file_sender_t.h
    ${CMAKE_CURRENT_LIST_DIR}/file_sender_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/file_receiver_handler_t.h
    ${CMAKE_CURRENT_LIST_DIR}/file_receiver_handler_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/file_receiver_t.h
    ${CMAKE_CURRENT_LIST_DIR}/file_receiver_t.cpp
)
# Chunk payloads are inflated with zlib directly so that decoding can stop at one chunk's size.
find_package(ZLIB REQUIRED)
target_link_libraries(context_sync PRIVATE ZLIB::ZLIB)
