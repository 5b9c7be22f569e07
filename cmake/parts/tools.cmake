# What the three tools share: the command-line parser (getopt_long, --help,
# --version), the stop signals and the way tracking numbers are shown.
add_library(qm_toolcommon STATIC
  tools/common/QmToolCommandLine.cpp
  tools/common/QmToolStopSignals.cpp
  tools/common/QmToolTrackingId.cpp
)
target_include_directories(qm_toolcommon PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/tools/common)
target_compile_options(qm_toolcommon PRIVATE ${QM_WARNINGS})

# The OAP server simulator: a stand-in server with simulated handsets for
# running the driver end to end. It checks documents with its own expat-based
# reader, independent of the driver's message classes.
add_library(qm_oapsim OBJECT
  tools/oapsim/OapSimXml.cpp
  tools/oapsim/OapSimDocument.cpp
  tools/oapsim/OapSimReply.cpp
  tools/oapsim/OapSimHandsets.cpp
  tools/oapsim/OapSimOptions.cpp
  tools/oapsim/OapSimServer.cpp
)
target_include_directories(qm_oapsim PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/tools/oapsim)
target_compile_options(qm_oapsim PRIVATE ${QM_WARNINGS})
target_link_libraries(qm_oapsim PUBLIC qm_toolcommon EXPAT::EXPAT)

add_executable(oapsim tools/oapsim/main.cpp)
target_compile_options(oapsim PRIVATE ${QM_WARNINGS})
target_link_libraries(oapsim PRIVATE qm_oapsim EXPAT::EXPAT)

qm_add_test(oapsim_tests
  SOURCES tools/oapsim/tests/oapsim_test.cpp
  LIBS qm_oapsim)
if(TARGET oapsim_tests)
  add_dependencies(oapsim_tests oapsim)
  target_compile_definitions(oapsim_tests PRIVATE OAPSIM_PATH="$<TARGET_FILE:oapsim>")
endif()
