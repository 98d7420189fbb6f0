# Sources of server/context_sync/context_sync/transfer_manager that live in this folder; paths start with
# ${CMAKE_CURRENT_LIST_DIR} because this file is included from its library's CMakeLists.txt.
target_sources(context_sync PRIVATE
)
