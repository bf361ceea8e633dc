# hexmold_discover_tests(<target> <prefix>): one CTest test per GoogleTest test of <target>,
# named <prefix><Suite>.<Test> (GoogleTest's full name, typed and parameterised instances
# included), listed from the program after each link; with HEXMOLD_CTEST_PER set to "suite", one
# per suite, named <prefix><Suite>. CMake's gtest_discover_tests names typed
# tests by their type index only, which the named instances here (Traits24, Traits55_float3, ...)
# do not have, and then puts the whole type comment into the name.
function(hexmold_discover_tests target prefix)
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${target}_tests.cmake")
    set(include "${CMAKE_CURRENT_BINARY_DIR}/${target}_include.cmake")
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -D EXE=$<TARGET_FILE:${target}> -D OUT=${script} -D PREFIX=${prefix}
                -D DATA_DIR=${HEXMOLD_DATA_DIR} -D TIMEOUT=120 -D PER=${HEXMOLD_CTEST_PER}
                -P ${PROJECT_SOURCE_DIR}/cmake/hexmold_list_tests.cmake
        BYPRODUCTS ${script}
        VERBATIM)
    # Before the first build the program has no list: one failing test says so.
    file(WRITE "${include}"
         "if(EXISTS \"${script}\")\n"
         "    include(\"${script}\")\n"
         "else()\n"
         "    add_test(${target}_NOT_BUILT ${target}_NOT_BUILT)\n"
         "endif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${include}")
endfunction()
