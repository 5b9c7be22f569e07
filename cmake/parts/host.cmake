# Reference host: job record, reports manager and plug-in loader, the qmhost
# program built on them, and their tests.
add_library(qm_refhost STATIC
  messenger_host/reference/QmReferenceJob.cpp
  messenger_host/reference/QmReferenceReportsManager.cpp
  messenger_host/reference/QmDriverLoader.cpp
  # The driver base class: a host calling a driver needs its type
  # information (and every test driver its defaults).
  messenger_drivers/oap/src/QmProtocolDriverInterface.cpp
)
target_include_directories(qm_refhost PUBLIC
  ${CMAKE_CURRENT_SOURCE_DIR}/messenger_host/reference
  ${CMAKE_CURRENT_SOURCE_DIR}/messenger_host/include
  ${CMAKE_CURRENT_SOURCE_DIR}/runtime/include)
target_compile_options(qm_refhost PRIVATE ${QM_WARNINGS})
target_link_libraries(qm_refhost PUBLIC ${CMAKE_DL_LIBS} Threads::Threads)

# A library that offers only one of the two entry points, to check that the
# loader names the missing one.
add_library(qm_half_plugin MODULE messenger_host/tests/half_plugin.cpp)
target_compile_options(qm_half_plugin PRIVATE ${QM_WARNINGS})

qm_add_test(host_tests
  SOURCES messenger_host/tests/host_reference_test.cpp
          messenger_host/tests/host_options_test.cpp
          tools/qmhost/QmHostOptions.cpp
  LIBS qm_refhost qm_core qm_toolcommon)
if(TARGET host_tests)
  add_dependencies(host_tests qm_half_plugin)
  target_compile_definitions(host_tests PRIVATE
    QM_HALF_PLUGIN_PATH="$<TARGET_FILE:qm_half_plugin>")
  target_include_directories(host_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tools/qmhost)
endif()

# The reference host program; it logs through the runtime's event log.
if(TARGET qm_log)
  add_executable(qmhost
    tools/qmhost/main.cpp
    tools/qmhost/QmHostOptions.cpp
    tools/qmhost/QmHostRunner.cpp
  )
  target_compile_options(qmhost PRIVATE ${QM_WARNINGS})
  target_link_libraries(qmhost PRIVATE qm_refhost qm_toolcommon qmruntime)
endif()
