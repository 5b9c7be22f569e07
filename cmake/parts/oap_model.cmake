# OAP message model: blocks, header, status table and message bodies.
add_library(qm_oap_model OBJECT
  messenger_drivers/oap/src/OAPBlock.cpp
  messenger_drivers/oap/src/OAPRequestBlock.cpp
  messenger_drivers/oap/src/OAPResponseBlock.cpp
  messenger_drivers/oap/src/OAPBlockFactory.cpp
  messenger_drivers/oap/src/OAPBlockHeader.cpp
  messenger_drivers/oap/src/OAPBlockBody.cpp
  messenger_drivers/oap/src/MessageBody.cpp
  messenger_drivers/oap/src/OAXMLMessageBody.cpp
  messenger_drivers/oap/src/OAXMLInterActiveMessageBody.cpp
  messenger_drivers/oap/src/OAXMLService.cpp
  messenger_drivers/oap/src/InterActiveMessageResponse.cpp
)
target_include_directories(qm_oap_model PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/messenger_drivers/oap/src)
target_compile_options(qm_oap_model PRIVATE ${QM_WARNINGS})
target_link_libraries(qm_oap_model PUBLIC qm_core)

if(TARGET qm_xml AND TARGET qm_ini_codec)
  qm_add_test(oap_model_tests
    SOURCES messenger_drivers/oap/tests/model_test.cpp
    LIBS qm_core qm_xml qm_ini_codec qm_oap_model)
endif()
