# Sources of server/platform/database/definition that live in this folder; paths start with
# ${CMAKE_CURRENT_LIST_DIR} because this file is included from its library's CMakeLists.txt.
target_sources(orvane_platform PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/type_brand_t.h
    ${CMAKE_CURRENT_LIST_DIR}/type_brand_t.cpp
)
