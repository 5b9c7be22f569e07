// The plug-in as a host drives it, against the loopback OAP server: outbound
// sends, inbound answers and the first answer after a quiet spell beside
// raw-socket baselines doing the same exchanges, the same sends and answers
// with the message store in a file beside the store in memory, the memory
// kept per accepted message and the CPU of an idle driver.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "QmDriverLoader.h"
#include "QmReferenceJob.h"
#include "QmReferenceReportsManager.h"
#include "QmconCriticalSection.h"
#include "loopback_server.h"
#include "paired.h"

namespace {

using Status = QmMessengerReportsMngrInterface::ReportsStatus;

const int kAnswerBatch = 200;
const int kMemoryWarmUp = 2000;
const int kMemoryMessages = 20000;
const auto kAnswerWait = std::chrono::seconds(30);
const auto kQuietSpell = std::chrono::seconds(5);

int FreeLoopbackPort() {
  LoopbackServer probe(LoopbackServer::Sink);
  return probe.Port();
}

std::string Hex(const std::string& decimal) {
  char text[32];
  std::snprintf(text, sizeof text, "%lx", std::strtoul(decimal.c_str(), nullptr, 10));
  return text;
}

// A handset's answer choosing the first option of message `hexId`.
std::string OptionAnswer(const std::string& hexId) {
  return "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<OAP-response version=\"3.0\" id=\"" +
         hexId +
         "\"><Status service=\"message\"><Type>5</Type><Code>200</Code><TypeSpecific>"
         "<From>4711</From><DataResp>N:Yes</DataResp></TypeSpecific></Status></OAP-response>";
}

// The plug-in loaded and set up on a loopback listener, with the OAP server
// its jobs point at. No logger is attached, so the figures are the driver's
// own work. Get() keeps its messages in memory; WithStoreFile() is a second
// copy of the library (a driver of its own in the same process) that keeps
// them in an SQLite file.
class Plugin {
 public:
  static Plugin& Get() {
    static Plugin plugin(QM_DRIVER_PATH, {});
    return plugin;
  }
  static Plugin& WithStoreFile() {
    static const std::filesystem::path folder = [] {
      char pattern[] = "/tmp/qm_bench_XXXXXX";
      if (mkdtemp(pattern) == nullptr) throw std::runtime_error("no folder for the store");
      return std::filesystem::path(pattern);
    }();
    static Plugin plugin(Copy(folder), {{"MessageStore", (folder / "state.db").string()}});
    return plugin;
  }

  ~Plugin() {
    driver->Cleanup();
    loader.ReleaseDriverInstance(driver);
    if (!copy.empty()) std::filesystem::remove_all(copy.parent_path());
  }

  // An interactive version 3.0 job with two choices for the server.
  void Address(QmReferenceJob& job, const std::string& id) const {
    job.JobId = id;
    job.DeviceId = "4711";
    job.ServerHost = "127.0.0.1";
    job.ServerPort = server.Port();
    job.OapVersion = "3.0";
    job.SubjectText = "Lunch";
    job.MessageText = "Coming?";
    job.IsInteractive = true;
    job.ExpectsResponse = true;
    job.ResponseChoices.clear();
    for (const char* text : {"Yes", "No"}) {
      QmResponseChoice choice;
      choice.Text = text;
      choice.Kind = job.ResponseChoices.empty() ? 0 : 2;
      job.ResponseChoices.push_back(choice);
    }
  }

  // False when the server did not accept the job; lastError then says why.
  bool Send(QmReferenceJob& job) {
    Status status = QmMessengerReportsMngrInterface::NO_STATUS;
    if (driver->SendAMessage(&job, status) && status == QmMessengerReportsMngrInterface::SENT) {
      return true;
    }
    lastError = "send failed: " + job.GetErrorText();
    return false;
  }

  bool Query(QmReferenceJob& job) {
    Status status = job.Status;
    return driver->Send2WayRespQuery(&job, status);
  }

  // The bytes the driver writes for the outbound job, taken from the server
  // after one send.
  const std::string& SampleRequest() {
    if (sample.empty()) {
      QmReferenceJob job;
      Address(job, "sample");
      if (Send(job)) sample = server.LastDocument();
    }
    return sample;
  }

  void DrainQueue() {
    QmconCriticalSection guard(queue.Lock.GetLockObj(), true, true, false);
    queue.Jobs.clear();
  }

  LoopbackServer server{LoopbackServer::Respond};
  QmDriverLoader loader;
  QmProtocolDriverInterface* driver = nullptr;
  QmMessageQueue queue;
  QmReferenceReportsManager reports;
  int listenerPort = 0;
  std::string sample;
  std::string lastError;

 private:
  // The library copied into the folder: loaded from there, it is a library
  // of its own with a driver of its own.
  static std::string Copy(const std::filesystem::path& folder) {
    const std::filesystem::path copy = folder / "libqmoapdriver-store.so";
    std::filesystem::copy_file(QM_DRIVER_PATH, copy,
                               std::filesystem::copy_options::overwrite_existing);
    return copy.string();
  }

  Plugin(const std::string& path, std::map<std::string, std::string> settings)
      : copy(path != QM_DRIVER_PATH ? path : "") {
    if (!loader.Load(path)) throw std::runtime_error(loader.GetError());
    driver = loader.GetDriverInstance();
    driver->Logger = nullptr;
    driver->ReportsManager = &reports;
    driver->MessageQueue = &queue;
    if (!driver->Configure(settings)) throw std::runtime_error("the store settings were refused");
    // A port free when probed may be taken before the listener binds it.
    for (int attempt = 0; attempt < 5 && listenerPort == 0; ++attempt) {
      const int port = FreeLoopbackPort();
      QmMessengerInstConfBasic conf;
      std::snprintf(conf.ListenerPort, sizeof conf.ListenerPort, "%d", port);
      std::snprintf(conf.ListenerAddress, sizeof conf.ListenerAddress, "127.0.0.1");
      if (driver->Setup(&conf)) listenerPort = port;
    }
    if (listenerPort == 0) throw std::runtime_error("the driver's listener could not be set up");
  }

  const std::filesystem::path copy;
};

// Queries every job until each has been handed back with its answer;
// false when that takes longer than kAnswerWait.
bool AwaitAnswers(Plugin& plugin, std::vector<std::unique_ptr<QmReferenceJob>>& jobs) {
  std::vector<QmReferenceJob*> waiting;
  for (auto& job : jobs) waiting.push_back(job.get());
  const auto deadline = std::chrono::steady_clock::now() + kAnswerWait;
  while (!waiting.empty() && std::chrono::steady_clock::now() < deadline) {
    const size_t before = waiting.size();
    for (size_t i = waiting.size(); i-- > 0;) {
      plugin.Query(*waiting[i]);
      if (waiting[i]->Status == QmMessengerReportsMngrInterface::REPLIED) {
        waiting.erase(waiting.begin() + static_cast<long>(i));
      }
    }
    plugin.DrainQueue();
    if (waiting.size() == before) std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return waiting.empty();
}

// SendAMessage through the plug-in against a raw client that replays the
// bytes the driver writes to the same server: connect, write, one read, close.
void BM_Outbound(benchmark::State& state) {
  Plugin& plugin = Plugin::Get();
  const std::string request = plugin.SampleRequest();
  QmReferenceJob job;
  plugin.Address(job, "outbound");
  std::string error = plugin.lastError;
  PairedRun run;
  run.callsPerBlock = 20;
  run.subject = [&] {
    job.TakeStatusChanges();
    if (plugin.Send(job)) return true;
    error = plugin.lastError;
    return false;
  };
  run.baseline = [&] {
    if (!request.empty() && RawExchange(plugin.server.Port(), request) > 0) return true;
    error = request.empty() ? error : "raw exchange failed";
    return false;
  };
  run.failure = [&] { return error; };
  RunPaired(state, run);
}

// One batch of the inbound figures: kAnswerBatch interactive messages sent
// (untimed, in Prepare), then one answer per message pushed to the driver's
// listener on a short connection of its own, as an OAP server does (connect,
// write, half-close, wait for the driver to close), until every answer is
// visible through the query (Run).
class AnswerBatch {
 public:
  explicit AnswerBatch(Plugin& plugin) : m_plugin(plugin) {}

  void Prepare() {
    jobs.clear();
    answers.clear();
    for (int i = 0; i < kAnswerBatch; ++i) {
      jobs.push_back(std::make_unique<QmReferenceJob>());
      m_plugin.Address(*jobs.back(), "inbound-" + std::to_string(i));
      if (!m_plugin.Send(*jobs.back())) error = m_plugin.lastError;
      answers.push_back(OptionAnswer(Hex(jobs.back()->GetTrackingReceipt())));
    }
  }

  bool Run() {
    for (const std::string& answer : answers) {
      if (!PushDocument(m_plugin.listenerPort, answer)) error = "push to the listener failed";
    }
    if (!error.empty()) return false;
    if (AwaitAnswers(m_plugin, jobs)) return true;
    error = "answers did not arrive in time";
    return false;
  }

  std::vector<std::unique_ptr<QmReferenceJob>> jobs;
  std::vector<std::string> answers;
  std::string error;

 private:
  Plugin& m_plugin;
};

// Answers through the plug-in against a raw accept-read loop fed the same
// documents that also makes the one exchange with the OAP server that the
// driver makes for every answer (the "You replied:" update).
void BM_Inbound(benchmark::State& state) {
  Plugin& plugin = Plugin::Get();
  LoopbackServer sink(LoopbackServer::Sink, plugin.server.Port(), plugin.SampleRequest());
  AnswerBatch batch(plugin);
  PairedRun run;
  run.operationsPerCall = kAnswerBatch;
  run.prepare = [&] { batch.Prepare(); };
  run.subject = [&] { return batch.Run(); };
  run.baseline = [&] {
    const unsigned long target = sink.Served() + batch.answers.size();
    for (const std::string& answer : batch.answers) {
      if (!PushDocument(sink.Port(), answer)) batch.error = "push to the raw loop failed";
    }
    if (batch.error.empty() && sink.Served() != target) batch.error = "documents were lost";
    return batch.error.empty();
  };
  run.failure = [&] { return batch.error; };
  RunPaired(state, run);
}

// SendAMessage with the message store in a file against the same with the
// store in memory: two drivers in one process, each with its own server.
void BM_StoreOutbound(benchmark::State& state) {
  Plugin* plugins[] = {&Plugin::WithStoreFile(), &Plugin::Get()};
  QmReferenceJob jobs[2];
  for (int i = 0; i < 2; ++i) plugins[i]->Address(jobs[i], "store-" + std::to_string(i));
  std::string error;
  auto send = [&](int i) {
    jobs[i].TakeStatusChanges();
    if (plugins[i]->Send(jobs[i])) return true;
    error = plugins[i]->lastError;
    return false;
  };
  PairedRun run;
  run.callsPerBlock = 20;
  run.subject = [&] { return send(0); };
  run.baseline = [&] { return send(1); };
  run.failure = [&] { return error; };
  RunPaired(state, run);
}

// Answers through the listener into the query with the message store in a
// file against the same with the store in memory.
void BM_StoreInbound(benchmark::State& state) {
  AnswerBatch file(Plugin::WithStoreFile()), memory(Plugin::Get());
  PairedRun run;
  run.operationsPerCall = kAnswerBatch;
  run.prepare = [&] { file.Prepare(); };
  run.prepareBaseline = [&] { memory.Prepare(); };
  run.subject = [&] { return file.Run(); };
  run.baseline = [&] { return memory.Run(); };
  run.failure = [&] { return file.error.empty() ? memory.error : file.error; };
  RunPaired(state, run);
}

double Percentile(std::vector<double> values, double fraction) {
  std::sort(values.begin(), values.end());
  const size_t index = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
  return values[index];
}

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

// The first answer after a quiet spell: the listener and its workers have
// had nothing to do for kQuietSpell when an answer comes. Measured from the
// connect that carries the answer until Send2WayRespQuery hands the job
// back. The baseline is a raw accept-read loop, quiet for the same spell,
// from the connect until it has read the document. Samples: 200 unless
// QM_BENCH_LATENCY_SAMPLES says otherwise (each takes the spell).
void BM_FirstAnswerLatency(benchmark::State& state) {
  Plugin& plugin = Plugin::Get();
  LoopbackServer sink(LoopbackServer::Sink);
  const char* samplesText = std::getenv("QM_BENCH_LATENCY_SAMPLES");
  const int samples = samplesText != nullptr ? std::max(1, std::atoi(samplesText)) : 200;
  std::vector<double> driver;
  std::vector<double> raw;
  for (auto _ : state) {
    for (int i = 0; i < samples; ++i) {
      QmReferenceJob job;
      plugin.Address(job, "quiet-" + std::to_string(i));
      if (!plugin.Send(job)) {
        state.SkipWithError(plugin.lastError.c_str());
        return;
      }
      const std::string answer = OptionAnswer(Hex(job.GetTrackingReceipt()));
      std::this_thread::sleep_for(kQuietSpell);

      auto start = std::chrono::steady_clock::now();
      PushShort(plugin.listenerPort, answer);
      const auto deadline = start + kAnswerWait;
      while (job.Status != QmMessengerReportsMngrInterface::REPLIED &&
             std::chrono::steady_clock::now() < deadline) {
        plugin.Query(job);
        if (job.Status != QmMessengerReportsMngrInterface::REPLIED) {
          std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
      }
      driver.push_back(MillisecondsSince(start));
      plugin.DrainQueue();
      if (job.Status != QmMessengerReportsMngrInterface::REPLIED) {
        state.SkipWithError("an answer after a quiet spell did not arrive in time");
        return;
      }

      // The raw loop has been quiet for as long.
      const unsigned long served = sink.Served();
      start = std::chrono::steady_clock::now();
      PushShort(sink.Port(), answer);
      while (sink.Served() == served && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
      raw.push_back(MillisecondsSince(start));
    }
  }
  state.counters["p50_ms"] = Percentile(driver, 0.50);
  state.counters["p99_ms"] = Percentile(driver, 0.99);
  state.counters["baseline_p50_ms"] = Percentile(raw, 0.50);
  state.counters["baseline_p99_ms"] = Percentile(raw, 0.99);
  state.counters["samples"] = static_cast<double>(driver.size());
}

// Resident memory before and after a run of accepted messages, with freed
// heap handed back first so only what is kept counts.
long SettledResidentBytes() {
  malloc_trim(0);
  return ResidentBytes();
}

void BM_MemoryPerMessage(benchmark::State& state) {
  Plugin& plugin = Plugin::Get();
  QmReferenceJob job;
  plugin.Address(job, "memory");
  for (auto _ : state) {
    for (int i = 0; i < kMemoryWarmUp; ++i) plugin.Send(job);
    job.TakeStatusChanges();
    const long before = SettledResidentBytes();
    int accepted = 0;
    for (int i = 0; i < kMemoryMessages; ++i) {
      accepted += plugin.Send(job) ? 1 : 0;
      job.TakeStatusChanges();
    }
    const long after = SettledResidentBytes();
    if (accepted != kMemoryMessages) state.SkipWithError("not every message was accepted");
    state.counters["bytes_per_message"] =
        static_cast<double>(after - before) / static_cast<double>(kMemoryMessages);
  }
}

double ProcessCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU the process spends while the driver's listener is up and nothing
// happens: what an idle driver costs its host.
void BM_IdleDriverCpu(benchmark::State& state) {
  Plugin::Get();
  const auto idle = std::chrono::seconds(2);
  for (auto _ : state) {
    const double before = ProcessCpuSeconds();
    std::this_thread::sleep_for(idle);
    state.counters["cpu_ms_per_s"] =
        (ProcessCpuSeconds() - before) * 1000.0 / static_cast<double>(idle.count());
  }
}

}  // namespace

BENCHMARK(BM_Outbound)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Inbound)->UseRealTime()->Iterations(4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FirstAnswerLatency)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StoreOutbound)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StoreInbound)->UseRealTime()->Iterations(4)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemoryPerMessage)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IdleDriverCpu)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond);
