# Small helpers shared by every folder's CMakeLists.txt.

# fenrel_add_library(<name> SOURCES ... [LIBS ...])
#   One static library per folder; LIBS are its public links, i.e. its layering.
function(fenrel_add_library name)
  cmake_parse_arguments(A "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${A_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${A_LIBS})
endfunction()

# fenrel_add_test(<name> SOURCES ... [LIBS ...] [LABELS ...] [TIMEOUT s])
#   One gtest binary; every test case becomes a ctest entry.
function(fenrel_add_test name)
  cmake_parse_arguments(A "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${A_SOURCES})
  target_link_libraries(${name} PRIVATE ${A_LIBS} fenrel_test_support GTest::gtest GTest::gmock
                        GTest::gtest_main)
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 120)
  endif()
  if(NOT A_LABELS)
    set(A_LABELS unit)
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${A_TIMEOUT} LABELS "${A_LABELS}")
endfunction()

# fenrel_add_fuzzer(<name> SOURCES ... [LIBS ...] [CORPUS dir])
#   With FENREL_FUZZ a libFuzzer binary; always also a replay test that runs the
#   committed corpus through the same entry point, so fixed crash inputs stay fixed.
function(fenrel_add_fuzzer name)
  cmake_parse_arguments(A "" "CORPUS" "SOURCES;LIBS" ${ARGN})
  if(FENREL_FUZZ)
    add_executable(${name} ${A_SOURCES})
    target_link_libraries(${name} PRIVATE ${A_LIBS} fenrel_fuzz_support)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  endif()
  if(FENREL_TESTS)
    add_executable(${name}_replay ${A_SOURCES})
    target_link_libraries(${name}_replay PRIVATE ${A_LIBS} fenrel_fuzz_support fenrel_fuzz_replay_main)
    add_test(NAME ${name}_replay COMMAND ${name}_replay ${A_CORPUS})
    set_tests_properties(${name}_replay PROPERTIES TIMEOUT 120 LABELS fuzz-replay)
  endif()
endfunction()

# fenrel_add_bench(<name> SOURCES ... [LIBS ...])
#   A Google Benchmark binary, plus a short smoke run in ctest so it keeps working.
function(fenrel_add_bench name)
  cmake_parse_arguments(A "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${A_SOURCES})
  target_link_libraries(${name} PRIVATE ${A_LIBS} benchmark::benchmark benchmark::benchmark_main)
  if(FENREL_TESTS)
    add_test(NAME ${name}_smoke COMMAND ${name} --benchmark_min_time=0.001)
    set_tests_properties(${name}_smoke PROPERTIES TIMEOUT 300 LABELS bench-smoke)
  endif()
endfunction()
