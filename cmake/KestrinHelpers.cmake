# Compiler warnings: on everywhere, errors when KESTRIN_WERROR is set (CI sets it).
function(kestrin_enable_warnings)
  add_compile_options(-Wall -Wextra -Wno-unused-parameter)
  # gcc can limit shadowing warnings to locals; clang knows only the broad one.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wshadow=local)
  endif()
  if(KESTRIN_WERROR)
    add_compile_options(-Werror)
  endif()
endfunction()

# Sanitizers are a configure switch: -DKESTRIN_SANITIZE=address,undefined or thread.
function(kestrin_enable_sanitizers list)
  if(list STREQUAL "")
    return()
  endif()
  set(flags -fsanitize=${list} -fno-omit-frame-pointer -g)
  if(list MATCHES "undefined")
    list(APPEND flags -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${flags})
  add_link_options(${flags})
endfunction()

# kestrin_test(NAME SOURCES src... [LIBS lib...] [LABELS label...])
# Builds one GoogleTest program and registers each of its tests with CTest.
function(kestrin_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest_main Threads::Threads)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  set(props ENVIRONMENT "KESTRIN_BUILD_DIR=${CMAKE_BINARY_DIR}")
  if(T_LABELS)
    list(APPEND props LABELS "${T_LABELS}")
  endif()
  gtest_discover_tests(${name}
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    PROPERTIES ${props}
    DISCOVERY_TIMEOUT 60)
endfunction()
