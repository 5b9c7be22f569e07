# Event logging: named loggers configured from "qmlogs.ini", the rotating
# file writer, the SQLite writer and the log database processor.
add_library(qm_log OBJECT
  runtime/src/QmsysSystemLog.cpp
  runtime/src/QmDBProcessorFatalException.cpp
  runtime/src/QmLogDBProcessorInterface.cpp
  runtime/src/QmLogSQLiteProcessor.cpp
  runtime/src/QmioDirectory.cpp
  runtime/src/LockFile.cpp
  runtime/src/QmsysEventLogWriterInterface.cpp
  runtime/src/QmsysEventLogFileWriter.cpp
  runtime/src/QmsysEventLogSQLiteWriter.cpp
  runtime/src/QmsysEventLogInterface.cpp
  runtime/src/QmsysEventLogSingleThreaded.cpp
  runtime/src/QmsysEventLogMultiThreaded.cpp
)
target_include_directories(qm_log PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/runtime/include)
target_compile_options(qm_log PRIVATE ${QM_WARNINGS})
target_link_libraries(qm_log PUBLIC SQLite::SQLite3 qm_core qm_ini_codec)

qm_add_test(log_tests
  SOURCES runtime/tests/log_writer_test.cpp runtime/tests/log_frontend_test.cpp
  LIBS qm_core qm_ini_codec qm_log)

qm_add_test(logger_config_tests
  SOURCES runtime/tests/logger_config_test.cpp
  LIBS qm_core qm_ini_codec qm_log)
if(TARGET logger_config_tests)
  # The documented configuration examples are read from the sources.
  target_compile_definitions(logger_config_tests PRIVATE QM_SOURCE_DIR="${CMAKE_CURRENT_SOURCE_DIR}")
endif()
