# playfile_header_closure(OUT ROOT HEADER...): the headers (paths relative to ROOT) that
# the given headers include with #include "...", directly or through one another, the
# given ones included. Every header walked becomes a configure dependency, so a change of
# what they include walks them again.
function(playfile_header_closure out root)
    set(todo ${ARGN})
    set(seen)
    while(todo)
        list(POP_FRONT todo header)
        if(header IN_LIST seen OR NOT EXISTS ${root}/${header})
            continue()
        endif()
        list(APPEND seen ${header})
        file(STRINGS ${root}/${header} lines REGEX "^[ \t]*#[ \t]*include[ \t]+\"")
        foreach(line IN LISTS lines)
            string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]+\"([^\"]+)\".*" "\\1" included "${line}")
            list(APPEND todo ${included})
        endforeach()
    endwhile()
    list(TRANSFORM seen PREPEND ${root}/ OUTPUT_VARIABLE files)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${files})
    list(SORT seen)
    set(${out} ${seen} PARENT_SCOPE)
endfunction()
