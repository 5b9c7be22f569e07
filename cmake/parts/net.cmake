# Networking and modules: sockets, listener, socket pool, thread pool,
# module bases and the runtime's start/end functions.
add_library(qm_net OBJECT
  runtime/src/QmioSocket.cpp
  runtime/src/QmioClientSocket.cpp
  runtime/src/QmioAcceptedSocket.cpp
  runtime/src/QmioServerSocket.cpp
  runtime/src/QmioSocketEventHandler.cpp
  runtime/src/QmioSocketAdvHandler.cpp
  runtime/src/QmioSocketListener.cpp
  runtime/src/QmioSocketPool.cpp
  runtime/src/SockeReadWork.cpp
  runtime/src/QmconThreadPool.cpp
  runtime/src/QmPlainModule.cpp
  runtime/src/QmThreadModule.cpp
  runtime/src/QmLibrary.cpp
)
target_include_directories(qm_net PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/runtime/include)
target_compile_options(qm_net PRIVATE ${QM_WARNINGS})
target_link_libraries(qm_net PUBLIC qm_core Threads::Threads)

qm_add_test(net_tests
  SOURCES runtime/tests/net_socket_test.cpp runtime/tests/net_threadpool_test.cpp
          runtime/tests/net_listener_test.cpp runtime/tests/module_test.cpp
  LIBS qm_core qm_ini_codec qm_log qm_net)
