# Build step: writes the CTest file that registers one test per case of the
# VM suite, each passing iff its case passed in the XML of the VM run.
#
# cmake -D SUITE=<suite binary> -D XML=<results> -D FIXTURE=<VM run fixture>
#       -D CHECKER=<case_result.cmake> -D OUTPUT=<CTest file> -P list_cases.cmake
cmake_minimum_required(VERSION 3.25)
execute_process(
    COMMAND "${SUITE}" --gtest_list_tests
    OUTPUT_VARIABLE listing
    RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${SUITE} --gtest_list_tests failed: ${rc}")
endif()

# The listing has "Suite." lines, each followed by "  Case" lines; value-
# and type-parameterised entries carry a trailing "  # ..." comment.
string(REPLACE "\n" ";" lines "${listing}")
set(tests "")
foreach(line IN LISTS lines)
    string(REGEX REPLACE " *#.*$" "" line "${line}")
    if(line MATCHES "^([^ ].*)\\.$")
        set(suite_name "${CMAKE_MATCH_1}")
    elseif(line MATCHES "^  (.+)$")
        set(case "${suite_name}.${CMAKE_MATCH_1}")
        string(APPEND tests
            "add_test([=[vm.${case}]=] [=[${CMAKE_COMMAND}]=] -D [=[CASE=${case}]=]"
            " -D [=[XML=${XML}]=] -P [=[${CHECKER}]=])\n"
            "set_tests_properties([=[vm.${case}]=] PROPERTIES"
            " FIXTURES_REQUIRED [=[${FIXTURE}]=] LABELS vm)\n")
    endif()
endforeach()
file(WRITE "${OUTPUT}" "${tests}")
