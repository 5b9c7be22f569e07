# The soak and fault suite: the plug-in loaded as a host loads it, driven
# hard against an in-test OAP server and a busy listener. Registered with the
# label "soak" and the name prefix "Soak." so that the normal suite leaves it
# out (ctest -LE soak) and scripts/soak.sh runs it alone (ctest -L soak).
if(QM_BUILD_TESTS AND TARGET qmoapdriver AND TARGET qm_refhost AND TARGET qm_core)
  set(QM_SOAK_DIR ${CMAKE_CURRENT_SOURCE_DIR}/tests/soak)
  set(QM_DRIVER_TESTS_DIR ${CMAKE_CURRENT_SOURCE_DIR}/messenger_drivers/oap/tests)

  # qm_soak_test(<name> <timeout seconds> <test sources...>)
  function(qm_soak_test name timeout)
    add_executable(${name} ${ARGN}
      ${QM_SOAK_DIR}/soak_support.cpp ${QM_DRIVER_TESTS_DIR}/driver_fixture.cpp)
    target_include_directories(${name} PRIVATE ${QM_SOAK_DIR} ${QM_DRIVER_TESTS_DIR})
    target_compile_options(${name} PRIVATE ${QM_WARNINGS})
    target_compile_definitions(${name} PRIVATE QM_DRIVER_PATH="$<TARGET_FILE:qmoapdriver>")
    target_link_libraries(${name} PRIVATE qm_refhost qm_core GTest::gtest_main Threads::Threads)
    add_dependencies(${name} qmoapdriver)
    if(QM_SANITIZE)
      target_compile_definitions(${name} PRIVATE QM_SOAK_SANITIZED=1)
    endif()
    gtest_discover_tests(${name} TEST_PREFIX "Soak." DISCOVERY_TIMEOUT 60
      PROPERTIES LABELS soak TIMEOUT ${timeout})
  endfunction()

  qm_soak_test(soak_load_tests 420 ${QM_SOAK_DIR}/soak_load_test.cpp)
  qm_soak_test(soak_fault_tests 90 ${QM_SOAK_DIR}/soak_fault_test.cpp)
  # Thread pools stopped while busy.
  qm_soak_test(soak_stop_tests 300 ${QM_SOAK_DIR}/soak_stop_test.cpp)
  target_link_libraries(soak_stop_tests PRIVATE qm_net qm_log qm_ini_codec)
  target_include_directories(soak_stop_tests PRIVATE
    ${CMAKE_CURRENT_SOURCE_DIR}/runtime/tests)

  # Cleanup at random moments while host threads send and answers arrive.
  qm_soak_test(soak_cleanup_tests 1800 ${QM_SOAK_DIR}/soak_cleanup_test.cpp)
  if(QM_SANITIZE)
    # The sanitizer stages of CI leave the soak label out: a few rounds there.
    add_test(NAME SanitizedCleanupRounds COMMAND soak_cleanup_tests)
    set_tests_properties(SanitizedCleanupRounds PROPERTIES ENVIRONMENT QM_SOAK_ROUNDS=10
                         TIMEOUT 600)
  endif()

  # The message store: host processes killed and restarted on one store file
  # (played by soak_host), and memory and file size under a long run.
  add_executable(soak_host ${QM_SOAK_DIR}/soak_host.cpp)
  target_compile_options(soak_host PRIVATE ${QM_WARNINGS})
  target_link_libraries(soak_host PRIVATE qm_refhost qm_core Threads::Threads)
  qm_soak_test(soak_store_tests 900 ${QM_SOAK_DIR}/soak_store_test.cpp)
  add_dependencies(soak_store_tests soak_host)
  target_compile_definitions(soak_store_tests PRIVATE
    QM_SOAK_HOST_PATH="$<TARGET_FILE:soak_host>")
endif()

# The logging cases need only the runtime: threads and processes sharing one
# SQLite log or one rotating file, a writer killed mid-run and a stuck worker
# at Stop. In a sanitizer build they run a few times each with the regular
# suite, so CI checks them under the sanitizers.
if(QM_BUILD_TESTS AND TARGET qm_log AND TARGET qm_xml)
  add_executable(soak_log_tests tests/soak/soak_log_test.cpp)
  target_include_directories(soak_log_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/runtime/tests)
  target_compile_options(soak_log_tests PRIVATE ${QM_WARNINGS})
  target_link_libraries(soak_log_tests PRIVATE qm_log qm_xml qm_core qm_ini_codec EXPAT::EXPAT
                        SQLite::SQLite3 GTest::gtest_main Threads::Threads)
  if(QM_SANITIZE)
    target_compile_definitions(soak_log_tests PRIVATE QM_SOAK_SANITIZED=1)
    gtest_discover_tests(soak_log_tests TEST_PREFIX "Soak." DISCOVERY_TIMEOUT 60
      PROPERTIES TIMEOUT 600)
  else()
    gtest_discover_tests(soak_log_tests TEST_PREFIX "Soak." DISCOVERY_TIMEOUT 60
      PROPERTIES LABELS soak TIMEOUT 600)
  endif()
endif()
