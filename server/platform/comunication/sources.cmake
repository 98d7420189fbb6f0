# Sources of server/platform/comunication that live in this folder and its config/, service/ and
# utility/ sub-folders; paths start with ${CMAKE_CURRENT_LIST_DIR} because this file is included
# from its library's CMakeLists.txt.
target_sources(orvane_platform PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/protobase_t.h
    ${CMAKE_CURRENT_LIST_DIR}/protoserver_t.h
    ${CMAKE_CURRENT_LIST_DIR}/protoserver_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/config/mosquittocnf_t.h
    ${CMAKE_CURRENT_LIST_DIR}/config/mosquittocnf_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/service/service_rr_base_t.h
    ${CMAKE_CURRENT_LIST_DIR}/service/service_rr_base_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/service/service_rr_server_t.h
    ${CMAKE_CURRENT_LIST_DIR}/service/service_rr_server_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/service/service_rr_client_t.h
    ${CMAKE_CURRENT_LIST_DIR}/service/service_rr_client_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/utility/destination_publish_server_t.h
    ${CMAKE_CURRENT_LIST_DIR}/utility/destination_publish_client_t.h
    ${CMAKE_CURRENT_LIST_DIR}/utility/destination_publish_client_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/utility/rr_topic_t.h
    ${CMAKE_CURRENT_LIST_DIR}/utility/rr_topic_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/utility/json_text_t.h
    ${CMAKE_CURRENT_LIST_DIR}/utility/json_text_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/utility/json_reader_t.h
    ${CMAKE_CURRENT_LIST_DIR}/utility/json_reader_t.cpp
)
