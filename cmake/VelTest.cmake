# vel_test(<name> SOURCES ... LIBRARIES ...): one GoogleTest program, run as one test. Its main is in test_support.
find_package(GTest REQUIRED)

function(vel_test name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE test_support ${arg_LIBRARIES} vel_flags)
    target_compile_options(${name} PRIVATE -O1 -g1) # half the time to compile; nobody waits for these programs
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 900)
endfunction()
