# vel_test(<name> SOURCES ... LIBRARIES ...): one GoogleTest program, run as one test. Its main is in test_support.
find_package(GTest REQUIRED)

function(vel_test name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE test_support ${arg_LIBRARIES} vel_flags)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 120)
endfunction()
