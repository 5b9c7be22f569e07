# Benchmarks (Google Benchmark): the plug-in, the message model and the
# event log, each beside a baseline measured in the same run. Skipped when
# Google Benchmark is not installed. scripts/bench.sh builds and runs them.
find_package(benchmark QUIET)
if(benchmark_FOUND AND TARGET qmoapdriver AND TARGET qm_refhost AND TARGET qm_oap_model
   AND TARGET qm_log)
  add_executable(qm_bench
    bench/loopback_server.cpp
    bench/bench_driver.cpp
    bench/bench_model.cpp
    bench/bench_log.cpp
  )
  target_compile_options(qm_bench PRIVATE ${QM_WARNINGS})
  target_link_libraries(qm_bench PRIVATE qm_refhost qm_core qm_xml qm_ini_codec qm_log qm_oap_model EXPAT::EXPAT
                        SQLite::SQLite3 benchmark::benchmark_main Threads::Threads)
  add_dependencies(qm_bench qmoapdriver)
  target_compile_definitions(qm_bench PRIVATE QM_DRIVER_PATH="$<TARGET_FILE:qmoapdriver>")
endif()
