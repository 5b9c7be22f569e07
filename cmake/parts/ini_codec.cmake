# INI documents (plain and with a lock held across read and write) and the codec.
add_library(qm_ini_codec OBJECT
  runtime/src/IniReaderWriter.cpp
  runtime/src/QmIniReaderWriterEx.cpp
  runtime/src/QmsysCodec.cpp
)
target_include_directories(qm_ini_codec PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/runtime/include)
target_compile_options(qm_ini_codec PRIVATE ${QM_WARNINGS})
target_link_libraries(qm_ini_codec PUBLIC qm_core)

qm_add_test(ini_tests
  SOURCES runtime/tests/ini_reader_writer_test.cpp
  LIBS qm_core qm_ini_codec)
qm_add_test(codec_tests
  SOURCES runtime/tests/codec_test.cpp
  LIBS qm_core qm_ini_codec)
# Narrows the process-wide XML table, so it runs in a process of its own.
qm_add_test(codec_narrowing_tests
  SOURCES runtime/tests/codec_xml_narrowing_test.cpp
  LIBS qm_core qm_ini_codec)
