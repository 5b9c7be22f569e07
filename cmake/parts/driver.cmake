# The OAP driver plug-in, libqmoapdriver.so: the driver with the protocol
# engine, the message model and the runtime linked in. Its dynamic symbol
# table carries only the two entry points the host looks up.
if(TARGET qm_oap_model AND TARGET qm_oap_engine)
  set(QM_DRIVER_EXPORTS ${CMAKE_CURRENT_SOURCE_DIR}/messenger_drivers/oap/src/exports.map)
  add_library(qmoapdriver MODULE
    messenger_drivers/oap/src/QmProtocolDriverInterface.cpp
    messenger_drivers/oap/src/QmOAPDriver.cpp
    messenger_drivers/oap/src/OAPDriverPlugin.cpp
    messenger_drivers/oap/src/OAPBuildInfo.cpp
  )
  target_include_directories(qmoapdriver PRIVATE
    ${CMAKE_CURRENT_SOURCE_DIR}/messenger_drivers/oap/src
    ${CMAKE_CURRENT_SOURCE_DIR}/messenger_host/include)
  target_compile_options(qmoapdriver PRIVATE ${QM_WARNINGS})
  target_link_libraries(qmoapdriver PRIVATE qm_oap_model qm_oap_engine qmruntime PkgConfig::PCRE2)
  target_link_options(qmoapdriver PRIVATE -Wl,--version-script=${QM_DRIVER_EXPORTS})
  # Everything must resolve inside the plug-in; sanitizer builds leave their
  # runtime to the executable that loads it.
  if(NOT QM_SANITIZE)
    target_link_options(qmoapdriver PRIVATE -Wl,--no-undefined)
  endif()
  set_target_properties(qmoapdriver PROPERTIES LINK_DEPENDS ${QM_DRIVER_EXPORTS})

  qm_add_test(driver_tests
    SOURCES messenger_drivers/oap/tests/driver_fixture.cpp
            messenger_drivers/oap/tests/driver_plugin_test.cpp
            messenger_drivers/oap/tests/driver_send_test.cpp
    LIBS qm_refhost qm_core)
  if(TARGET driver_tests)
    add_dependencies(driver_tests qmoapdriver)
    target_compile_definitions(driver_tests PRIVATE QM_DRIVER_PATH="$<TARGET_FILE:qmoapdriver>")
  endif()

  # qmhost run as a process against the plug-in and a fake OAP server.
  if(TARGET qmhost)
    qm_add_test(qmhost_tests
      SOURCES messenger_host/tests/host_qmhost_test.cpp
              messenger_drivers/oap/tests/driver_fixture.cpp
      LIBS qm_refhost qm_core)
    if(TARGET qmhost_tests)
      add_dependencies(qmhost_tests qmhost qmoapdriver)
      target_include_directories(qmhost_tests PRIVATE
        ${CMAKE_CURRENT_SOURCE_DIR}/messenger_drivers/oap/tests)
      target_compile_definitions(qmhost_tests PRIVATE
        QM_QMHOST_PATH="$<TARGET_FILE:qmhost>" QM_DRIVER_PATH="$<TARGET_FILE:qmoapdriver>")
    endif()
  endif()
endif()
