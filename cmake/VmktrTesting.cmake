# The one way to register a test: GoogleTest programs, checks run as commands and fuzz corpus
# replays all go through vmktr_test(), so that each carries exactly one label and the same defaults.
#
#   vmktr_test(name LABEL unit|integration|slow
#              [SOURCES files... [LIBS libs...] [FAKES] [DUMP_DIR]]
#              [COMMAND args...] [ENVIRONMENT vars...] [PROPERTIES property value...])
#
# SOURCES builds a GoogleTest program called name (gtest_main, threads, tests/support on the
# include path); ctest runs it unless COMMAND says what to run instead. Without SOURCES, COMMAND
# is required. FAKES links the recording fakes and the host platform: the library's engine calls
# bind to them. DUMP_DIR gives each run a fresh dump folder of its own (support/test_dump_dir.cpp),
# named in the sources by VMKTR_DUMP_DIR_FOR_TESTS, so no run reads what an earlier one left.
# Every test runs with VM_HOST_LOG=none (plus ENVIRONMENT) and a 600 s time-out; PROPERTIES are
# passed to set_tests_properties after those and may override the time-out.
#
# Labels: unit - one subsystem, engine or tool piece on its own; `ctest -L unit` is the quick loop
# (seconds). integration - the shared library through its five functions, programs run end to end
# and checks of the built binaries. slow - long runs and quality measurements.
set(VMKTR_TEST_LABELS unit integration slow)
set(VMKTR_TEST_SUPPORT_DIR ${PROJECT_SOURCE_DIR}/tests/support)

function(vmktr_test name)
  cmake_parse_arguments(T "FAKES;DUMP_DIR" "LABEL" "SOURCES;LIBS;COMMAND;ENVIRONMENT;PROPERTIES" ${ARGN})
  if(T_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "vmktr_test(${name}): unknown arguments ${T_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT T_LABEL IN_LIST VMKTR_TEST_LABELS)
    message(FATAL_ERROR "vmktr_test(${name}): LABEL must be one of ${VMKTR_TEST_LABELS}, not '${T_LABEL}'")
  endif()
  if(NOT T_SOURCES AND NOT T_COMMAND)
    message(FATAL_ERROR "vmktr_test(${name}): neither SOURCES nor COMMAND")
  endif()
  if(NOT T_SOURCES AND (T_LIBS OR T_FAKES OR T_DUMP_DIR))
    message(FATAL_ERROR "vmktr_test(${name}): LIBS, FAKES and DUMP_DIR need SOURCES")
  endif()

  if(T_SOURCES)
    add_executable(${name} ${T_SOURCES})
    target_include_directories(${name} PRIVATE ${VMKTR_TEST_SUPPORT_DIR} ${PROJECT_SOURCE_DIR}/tests)
    # The fakes come after the libraries whose engine calls they answer.
    set(_libs ${T_LIBS})
    if(T_FAKES)
      list(APPEND _libs vmktr_fakes vm_host_platform)
    endif()
    if(T_DUMP_DIR)
      target_sources(${name} PRIVATE ${VMKTR_TEST_SUPPORT_DIR}/test_dump_dir.cpp)
      target_compile_options(${name} PRIVATE "SHELL:-include ${VMKTR_TEST_SUPPORT_DIR}/test_dump_dir.h")
    endif()
    target_link_libraries(${name} PRIVATE ${_libs} GTest::gtest GTest::gtest_main Threads::Threads)
  endif()
  if(NOT T_COMMAND)
    set(T_COMMAND ${name})
  endif()

  set(_env VM_HOST_LOG=none ${T_ENVIRONMENT})
  add_test(NAME ${name} COMMAND ${T_COMMAND})
  set_tests_properties(${name} PROPERTIES LABELS ${T_LABEL} ENVIRONMENT "${_env}" TIMEOUT 600 ${T_PROPERTIES})
endfunction()
