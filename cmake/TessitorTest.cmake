include(GoogleTest)

# add_tessitor_test(<name> LABEL unit|e2e SOURCES ... [LIBS ...])
# One executable per subsystem; each test case is registered with CTest.
function(add_tessitor_test name)
    cmake_parse_arguments(T "" "LABEL" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${T_SOURCES})
    target_link_libraries(${name} PRIVATE tessitor::tessitor tessitor_testsupport ${T_LIBS}
        GTest::gtest GTest::gtest_main GTest::gmock tessitor_warnings)
    gtest_discover_tests(${name}
        PROPERTIES LABELS "${T_LABEL}" TIMEOUT 120
                   ENVIRONMENT "TESSITOR_DATA=${TESSITOR_SOURCE_DATA_DIR}"
        DISCOVERY_TIMEOUT 60)
endfunction()
