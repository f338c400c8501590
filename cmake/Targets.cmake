# vondle_library(<folder> SOURCES ... [LINKS ...] [TESTS ...] [TEST_LINKS ...])
#
# One folder of src/ is one static library, vondle_<folder>, and one test program, <folder>_test, made of the *_test.cpp
# files beside the code. LINKS names the libraries that stand above this folder; the test program also gets the
# simulated platform, unless the folder is part of it.
function(vondle_library FOLDER)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS;TESTS;TEST_LINKS" ${ARGN})
  set(LIBRARY vondle_${FOLDER})
  add_library(${LIBRARY} STATIC ${ARG_SOURCES})
  target_include_directories(${LIBRARY} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${LIBRARY} PUBLIC ${ARG_LINKS})
  set_target_properties(${LIBRARY} PROPERTIES LINKER_LANGUAGE CXX)
  if(ARG_TESTS)
    vondle_test(${FOLDER}_test SOURCES ${ARG_TESTS} LINKS ${LIBRARY} ${ARG_TEST_LINKS})
  endif()
endfunction()

# vondle_test(<name> SOURCES ... [LINKS ...]): a GoogleTest program that ctest runs as one test. What it tests is optimised
# as shipped; the tests themselves are not, which takes half the time to compile.
function(vondle_test NAME)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${NAME} ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/src/testing/test_main.cpp)
  target_compile_options(${NAME} PRIVATE $<$<CONFIG:Release>:-O0>)
  target_link_libraries(${NAME} PRIVATE ${ARG_LINKS} vondle_base GTest::gmock GTest::gtest)
  add_test(NAME ${NAME} COMMAND ${NAME} --gtest_brief=1)
  set_tests_properties(${NAME} PROPERTIES TIMEOUT 300)
endfunction()

# vondle_program(<name> SOURCES ... [LINKS ...]): a program that users install.
function(vondle_program NAME)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${NAME} ${ARG_SOURCES})
  target_link_libraries(${NAME} PRIVATE ${ARG_LINKS})
  install(TARGETS ${NAME} RUNTIME DESTINATION bin)
endfunction()
