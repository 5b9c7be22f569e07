#ifndef QM_BENCH_PAIRED_H
#define QM_BENCH_PAIRED_H

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

// Measures a figure against its baseline in the same run: each benchmark
// iteration runs one block of the figure's calls and one block of the
// baseline's, in alternating order, so both see the same load on a busy
// machine. `prepare` and `prepareBaseline` run untimed before each block of
// the figure and of the baseline. Reports
// wall-clock nanoseconds per operation of each ("subject_ns",
// "baseline_ns") and "ratio", baseline time over figure time: above 1 the
// figure is the faster. A call that returns false stops the benchmark with
// `failure()` as its error.
struct PairedRun {
  std::function<bool()> subject;
  std::function<bool()> baseline;
  int callsPerBlock = 1;
  int operationsPerCall = 1;
  std::function<void()> prepare = [] {};
  std::function<void()> prepareBaseline = [] {};
  std::function<std::string()> failure = [] { return std::string("a call failed"); };
};

inline void RunPaired(benchmark::State& state, const PairedRun& run) {
  using Clock = std::chrono::steady_clock;
  Clock::duration times[2] = {};
  int64_t blocks = 0;
  // Runs one block of the figure (0) or the baseline (1) and adds its time.
  auto block = [&](int which) {
    (which == 0 ? run.prepare : run.prepareBaseline)();
    const std::function<bool()>& call = which == 0 ? run.subject : run.baseline;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < run.callsPerBlock; ++i) {
      if (!call()) return false;
    }
    times[which] += Clock::now() - start;
    return true;
  };
  for (auto _ : state) {
    const int first = static_cast<int>(blocks % 2);
    if (!block(first) || !block(1 - first)) {
      state.SkipWithError(run.failure().c_str());
      break;
    }
    ++blocks;
  }
  if (blocks == 0) return;
  const double operations = static_cast<double>(blocks) * run.callsPerBlock * run.operationsPerCall;
  const auto nanoseconds = [&](int which) {
    return std::chrono::duration<double, std::nano>(times[which]).count() / operations;
  };
  state.counters["subject_ns"] = nanoseconds(0);
  state.counters["baseline_ns"] = nanoseconds(1);
  state.counters["ratio"] = nanoseconds(1) / nanoseconds(0);
}

#endif
