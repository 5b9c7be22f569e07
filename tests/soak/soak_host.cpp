// A host process for the restart soak: loads the plug-in with a message
// store file and its listener on a given port, and then plays one part.
//
//   soak_host PLUGIN STORE LISTEN_PORT send SERVER_PORT COUNT
//     sends COUNT interactive jobs to the OAP server on 127.0.0.1, printing
//     "sent I RECEIPT" once each send has returned; waits for the end of its
//     input (or its end by a signal).
//   soak_host PLUGIN STORE LISTEN_PORT collect
//     reads "I RECEIPT" pairs up to "end", prints "ready", then queries
//     those jobs until each was handed back twice (or a minute passed),
//     printing "back I STATUS TEXT" for every hand-back and "finished";
//     keeps the listener up until a second "end" or the end of its input.
//
// Job I goes to handset "80<I % 8>" in version 4.0 for odd I, 3.0 for even,
// offering "Yes" (kind 0), "Stop" (kind 2) and "Escalate" (kind 3). Exit status 0, or 2 when the
// plug-in cannot be loaded or set up.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <thread>

#include "QmDriverLoader.h"
#include "QmReferenceJob.h"
#include "QmReferenceReportsManager.h"

namespace {

using Clock = std::chrono::steady_clock;

void Address(QmReferenceJob& job, int index, int serverPort) {
  job.JobId = "r" + std::to_string(index);
  job.DeviceId = "80" + std::to_string(index % 8);
  job.ServerHost = "127.0.0.1";
  job.ServerPort = serverPort;
  job.OapVersion = index % 2 ? "4.0" : "3.0";
  job.SubjectText = "Alarm";
  job.MessageText = "Room " + std::to_string(index) + ": take it?";
  job.IsInteractive = job.ExpectsResponse = true;
  job.ResponseChoices = {{0, "Yes", "", 0, 0}, {0, "Stop", "", 0, 2}, {0, "Escalate", "", 0, 3}};
}

// The plug-in loaded as a host loads it. Not thread-safe.
struct Host {
  bool Start(const char* plugin, const char* store, const char* port) {
    if (!loader.Load(plugin) || (driver = loader.GetDriverInstance()) == nullptr) {
      return false;
    }
    driver->ReportsManager = &reports;
    driver->MessageQueue = &queue;
    std::map<std::string, std::string> settings{{"MessageStore", store}};
    QmMessengerInstConfBasic conf;
    std::snprintf(conf.ListenerPort, sizeof conf.ListenerPort, "%s", port);
    std::snprintf(conf.ListenerAddress, sizeof conf.ListenerAddress, "127.0.0.1");
    return driver->Configure(settings) && driver->Setup(&conf);
  }
  ~Host() {
    if (driver == nullptr) return;
    driver->Cleanup();
    loader.ReleaseDriverInstance(driver);
  }

  // Queries every job until each was handed back twice, then once more.
  void Collect(std::map<int, QmReferenceJob>& jobs) {
    std::map<int, int> backs;
    size_t complete = 0;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
    for (bool last = false; !last;) {
      last = complete == jobs.size() || Clock::now() >= deadline;
      for (auto& [index, job] : jobs) {
        if (!last && backs[index] >= 2) continue;
        QmProtocolDriverInterface::ReportsStatus status = job.Status;
        driver->Send2WayRespQuery(&job, status);
        for (const auto& change : job.TakeStatusChanges()) {
          std::printf("back %d %d %s\n", index, static_cast<int>(change.status),
                      change.text.c_str());
          if (++backs[index] == 2) ++complete;
        }
      }
      if (!last) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::printf("finished\n");
  }

  QmDriverLoader loader;
  QmProtocolDriverInterface* driver = nullptr;
  QmMessageQueue queue;
  QmReferenceReportsManager reports;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const std::string mode = argv[4];
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // every line reaches the test at once
  Host host;
  if (!host.Start(argv[1], argv[2], argv[3])) return 2;
  if (mode == "send" && argc == 7) {
    for (int i = 0; i < std::atoi(argv[6]); ++i) {
      QmReferenceJob job;
      Address(job, i, std::atoi(argv[5]));
      QmProtocolDriverInterface::ReportsStatus status;
      if (host.driver->SendAMessage(&job, status))
        std::printf("sent %d %s\n", i, job.GetTrackingReceipt().c_str());
    }
  } else if (mode == "collect") {
    std::map<int, QmReferenceJob> jobs;
    for (std::string word; std::cin >> word && word != "end";) {
      const int index = std::atoi(word.c_str());
      Address(jobs[index], index, 0);
      std::cin >> jobs[index].TrackingReceipt;
    }
    std::printf("ready\n");
    host.Collect(jobs);
  } else {
    return 2;
  }
  for (std::string line; std::getline(std::cin, line) && line != "end";) {
  }
  return 0;
}
