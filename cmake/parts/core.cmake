# Runtime core: root object, exceptions, locks, events, threads, string and file helpers.
add_library(qm_core OBJECT
  runtime/src/Qmobject.cpp
  runtime/src/QmException.cpp
  runtime/src/QmconException.cpp
  runtime/src/QmioException.cpp
  runtime/src/QmconLock.cpp
  runtime/src/QmconCriticalSection.cpp
  runtime/src/QmconEvent.cpp
  runtime/src/QmconDelegate.cpp
  runtime/src/QmconThread.cpp
  runtime/src/QmconFunctions.cpp
  runtime/src/QmString.cpp
  runtime/src/QmAny.cpp
  runtime/src/QmioFile.cpp
)
target_include_directories(qm_core PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/runtime/include)
target_compile_options(qm_core PRIVATE ${QM_WARNINGS})
target_link_libraries(qm_core PUBLIC Threads::Threads)

qm_add_test(core_tests
  SOURCES runtime/tests/core_test.cpp
  LIBS qm_core)
