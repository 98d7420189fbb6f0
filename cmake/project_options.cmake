# Compile settings shared by every target, so that warnings and sanitizers are the same everywhere.

if(CONTEXT_SYNC_SANITIZE)
    string(REPLACE ";" "," _sanitizers "${CONTEXT_SYNC_SANITIZE}")
    add_compile_options(-fsanitize=${_sanitizers} -fno-omit-frame-pointer)
    if(_sanitizers MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
    add_link_options(-fsanitize=${_sanitizers})
endif()

function(context_sync_set_options target)
    target_compile_options(${target} PRIVATE -Wall -Wextra)
endfunction()

# Adds every folder below `dir` that has a CMakeLists.txt of its own, so that a new test area or
# benchmark is picked up without everyone editing one shared list. Sources are still listed
# explicitly inside each folder.
function(context_sync_add_subdirs_below dir)
    file(GLOB_RECURSE _lists RELATIVE ${dir} ${dir}/*/CMakeLists.txt)
    list(SORT _lists)
    foreach(_list IN LISTS _lists)
        get_filename_component(_child ${_list} DIRECTORY)
        add_subdirectory(${dir}/${_child})
    endforeach()
endfunction()
