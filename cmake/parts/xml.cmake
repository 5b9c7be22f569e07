# XML documents: the element tree over expat and the document class with its
# node API and writer.
add_library(qm_xml OBJECT
  runtime/src/XmlElement.cpp
  runtime/src/XmlTree.cpp
  runtime/src/XmlOutputEncoding.cpp
  runtime/src/XmlReaderWriter.cpp
)
target_compile_options(qm_xml PRIVATE ${QM_WARNINGS})
target_link_libraries(qm_xml PUBLIC qm_core EXPAT::EXPAT)

qm_add_test(xml_tests
  SOURCES runtime/tests/xml_test.cpp
  LIBS qm_core qm_xml)
