# Sources of server/platform/http that live in this folder; paths start with
# ${CMAKE_CURRENT_LIST_DIR} because this file is included from its library's CMakeLists.txt.
target_sources(orvane_platform PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/http_t.h
    ${CMAKE_CURRENT_LIST_DIR}/http_t.cpp
    ${CMAKE_CURRENT_LIST_DIR}/httpresponse_t.h
    ${CMAKE_CURRENT_LIST_DIR}/httpresponse_t.cpp
)
