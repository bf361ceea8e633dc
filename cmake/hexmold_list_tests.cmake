# Writes the CTest script of one GoogleTest program: one test per GoogleTest test, named
# <PREFIX><Suite>.<Test> with GoogleTest's own full name, so that a failing name can be passed to
# --gtest_filter as it stands; or, with PER=suite, one per suite, named <PREFIX><Suite>, running
# <Suite>.*. Run after each link of the program (hexmold_discover_tests).
#   cmake -D EXE=<program> -D OUT=<script> -D PREFIX=<prefix> -D DATA_DIR=<dir> -D TIMEOUT=<s>
#         -D PER=test|suite -P hexmold_list_tests.cmake
cmake_minimum_required(VERSION 3.20)
execute_process(COMMAND "${EXE}" --gtest_list_tests OUTPUT_VARIABLE listing ERROR_VARIABLE errors
                RESULT_VARIABLE result TIMEOUT ${TIMEOUT})
if(NOT result EQUAL 0)
    message(FATAL_ERROR "Listing the tests of ${EXE} failed (${result}):\n${listing}${errors}")
endif()

string(REPLACE ";" "," listing "${listing}")
string(REPLACE "\n" ";" lines "${listing}")
set(script "")
set(suite "")
# add_test and its properties for a test named <PREFIX>@p name that runs --gtest_filter=@p filter.
macro(add_one name filter)
    string(APPEND script
        "add_test([==[${PREFIX}${name}]==] [==[${EXE}]==] [==[--gtest_filter=${filter}]==])\n"
        "set_tests_properties([==[${PREFIX}${name}]==] PROPERTIES "
        "ENVIRONMENT [==[HEXMOLD_DATA_DIR=${DATA_DIR}]==])\n")
    if(PER STREQUAL "test")
        # A test that calls GTEST_SKIP shows as skipped, not as passed. Not for a whole suite,
        # where one skipped test would hide the others' results.
        string(APPEND script "set_tests_properties([==[${PREFIX}${name}]==] PROPERTIES "
                             "SKIP_REGULAR_EXPRESSION [==[\\[  SKIPPED \\]]==])\n")
    endif()
endmacro()
foreach(line IN LISTS lines)
    if(line MATCHES "^  ([^ ]+)")
        # A test of the current suite; a parameter comment ("  # GetParam() = ...") may follow it.
        set(name "${suite}.${CMAKE_MATCH_1}")
        if(PER STREQUAL "test" AND NOT name MATCHES "(^|[./])DISABLED_")
            add_one("${name}" "${name}")
        endif()
    elseif(line MATCHES "^([^ #]+)\\.")
        # A suite line, "Suite." or "Suite/Instance.  # TypeParam = ...".
        set(suite "${CMAKE_MATCH_1}")
        if(PER STREQUAL "suite" AND NOT suite MATCHES "(^|/)DISABLED_")
            add_one("${suite}" "${suite}.*")
        endif()
    endif()
endforeach()
file(WRITE "${OUT}" "${script}")
