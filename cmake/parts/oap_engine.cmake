# OAP protocol engine: client module, inbound listener, device registry and
# controllers, and the message service handler.
add_library(qm_oap_engine OBJECT
  messenger_drivers/oap/src/OAPServicePayLoadRequest.cpp
  messenger_drivers/oap/src/OAPServiceHandlerInterface.cpp
  messenger_drivers/oap/src/OAPMessageServiceHandler.cpp
  messenger_drivers/oap/src/OAPDeviceController.cpp
  messenger_drivers/oap/src/OAPDeviceRegistrar.cpp
  messenger_drivers/oap/src/OAPDocumentFramer.cpp
  messenger_drivers/oap/src/OAPConnectionHandler.cpp
  messenger_drivers/oap/src/OAPListener.cpp
  messenger_drivers/oap/src/OAPClient.cpp
  messenger_drivers/oap/src/OAPTracer.cpp
  messenger_drivers/oap/src/OAPMessageStore.cpp
  messenger_drivers/oap/src/OAPMemoryMessageStore.cpp
  messenger_drivers/oap/src/OAPSQLiteMessageStore.cpp
  messenger_drivers/oap/src/OAPMessageCodec.cpp
  messenger_drivers/oap/src/OAPMessageSweeper.cpp
  messenger_drivers/oap/src/OAPLoggerProxy.cpp
)
target_include_directories(qm_oap_engine PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/messenger_drivers/oap/src)
target_compile_options(qm_oap_engine PRIVATE ${QM_WARNINGS})
target_link_libraries(qm_oap_engine PUBLIC qm_core qm_oap_model SQLite::SQLite3)

if(TARGET qm_xml AND TARGET qm_ini_codec AND TARGET qm_log AND TARGET qm_net)
  qm_add_test(oap_engine_tests
    SOURCES messenger_drivers/oap/tests/engine_controller_test.cpp
            messenger_drivers/oap/tests/engine_client_test.cpp
            messenger_drivers/oap/tests/engine_store_test.cpp
    LIBS qm_core qm_xml qm_ini_codec qm_log qm_net qm_oap_model qm_oap_engine)
endif()
