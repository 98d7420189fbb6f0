# Sources of server/utility that live in this folder; paths start with
# ${CMAKE_CURRENT_LIST_DIR} because this file is included from its library's CMakeLists.txt.
target_sources(context_sync PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/allocator_tuning_t.h
    ${CMAKE_CURRENT_LIST_DIR}/allocator_tuning_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/LogStream.h
    ${CMAKE_CURRENT_LIST_DIR}/LogStream.cpp
    ${CMAKE_CURRENT_LIST_DIR}/cnfserver.h
    ${CMAKE_CURRENT_LIST_DIR}/cnfserver.cpp
    ${CMAKE_CURRENT_LIST_DIR}/http_read_config_server_t.h
    ${CMAKE_CURRENT_LIST_DIR}/http_read_config_server_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/orvane_option_t.h
    ${CMAKE_CURRENT_LIST_DIR}/orvane_option_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/thread_object_t.h
    ${CMAKE_CURRENT_LIST_DIR}/thread_object_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/tsan_annotations.h
    ${CMAKE_CURRENT_LIST_DIR}/type_configuration_mode_t.h
    ${CMAKE_CURRENT_LIST_DIR}/type_configuration_mode_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/utility_t.h
    ${CMAKE_CURRENT_LIST_DIR}/utility_t.cpp
)
