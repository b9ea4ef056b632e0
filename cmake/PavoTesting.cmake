# pavo_add_test(<name> SOURCES <files>... [LIBS <libs>...] [ISOLATED] [THREADED])
#
# One GoogleTest program, registered as one ctest test.
#   ISOLATED  the program uses fixed queue keys or the fixed UDP port: it runs
#             in private IPC and network namespaces, or, where namespaces
#             cannot be made (not root), serialised with the other such tests.
#   THREADED  the program exercises threads: the ThreadSanitizer leg runs it
#             (label "threaded").
# Cross builds run the program under CMAKE_CROSSCOMPILING_EMULATOR.
# AddressSanitizer builds give every test (and the programs it starts, such
# as pavo-media-service) the LeakSanitizer suppressions of third-party
# libraries' one-time allocations (tests/sanitizers/lsan.supp).

execute_process(COMMAND unshare --ipc --net true
  RESULT_VARIABLE _pavo_unshare_rc OUTPUT_QUIET ERROR_QUIET)
if(_pavo_unshare_rc EQUAL 0)
  set(PAVO_TEST_ISOLATION ON)
else()
  set(PAVO_TEST_ISOLATION OFF)
  message(STATUS "No private namespaces for tests (not root?): isolated tests run one at a time")
endif()

set(PAVO_TEST_ENVIRONMENT "")
if(PAVO_SANITIZE MATCHES "address")
  list(APPEND PAVO_TEST_ENVIRONMENT
    "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/sanitizers/lsan.supp")
endif()
if(CMAKE_CROSSCOMPILING_EMULATOR)
  # Lets a test skip what the emulator cannot do (see tests/support/emulation.h).
  list(APPEND PAVO_TEST_ENVIRONMENT "PAVO_TEST_EMULATED=1")
endif()

function(pavo_test_command out_var)
  set(cmd ${ARGN})
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    list(PREPEND cmd ${CMAKE_CROSSCOMPILING_EMULATOR})
  endif()
  set(${out_var} ${cmd} PARENT_SCOPE)
endfunction()

function(pavo_add_test name)
  cmake_parse_arguments(T "ISOLATED;THREADED" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE
    pavo_media_backend_testing pavo_test_support pavo_warnings GTest::gmock GTest::gtest_main ${T_LIBS})
  pavo_test_command(cmd $<TARGET_FILE:${name}>)
  set(labels unit)
  if(T_ISOLATED)
    list(APPEND labels isolated)
    if(PAVO_TEST_ISOLATION)
      list(PREPEND cmd ${PROJECT_SOURCE_DIR}/cmake/run_isolated.sh)
    endif()
  endif()
  if(T_THREADED)
    list(APPEND labels threaded)
  endif()
  add_test(NAME ${name} COMMAND ${cmd})
  set_tests_properties(${name} PROPERTIES LABELS "${labels}" TIMEOUT 900)
  if(PAVO_TEST_ENVIRONMENT)
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "${PAVO_TEST_ENVIRONMENT}")
  endif()
  if(T_ISOLATED AND NOT PAVO_TEST_ISOLATION)
    set_tests_properties(${name} PROPERTIES RESOURCE_LOCK pavo_fixed_keys_and_port)
  endif()
endfunction()
