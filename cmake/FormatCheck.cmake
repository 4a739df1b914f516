# Fails when a user-space source under lib/, tools/, tests/ or bench/ is not formatted
# as .clang-format says. Run with:
#   cmake -DCLANG_FORMAT=<clang-format> -DSOURCE_DIR=<top> -P FormatCheck.cmake
set(_patterns)
foreach(_dir lib tools tests bench)
    foreach(_ext cpp cc h hpp)
        list(APPEND _patterns ${SOURCE_DIR}/${_dir}/*.${_ext})
    endforeach()
endforeach()
file(GLOB_RECURSE _sources ${_patterns})
if(NOT _sources)
    return()
endif()
execute_process(
    COMMAND ${CLANG_FORMAT} --dry-run -Werror --style=file ${_sources}
    RESULT_VARIABLE _result)
if(NOT _result EQUAL 0)
    message(FATAL_ERROR "clang-format: sources above need formatting")
endif()
