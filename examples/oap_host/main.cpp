// A host for the OAP driver plug-in, built against the installed package:
// it loads the plug-in, attaches a logger, a queue and a reports manager,
// starts the driver's listener, sends a plain and an interactive message,
// runs the query cycle until the interactive one is answered, and stops
// cleanly on SIGINT or SIGTERM.
//
//   qm_example_host SERVER_HOST:PORT LISTEN_PORT [HANDSET_PLAIN HANDSET_ASK]
//
// Exit status 0 when the interactive message was answered, 1 when not.

#include <dlfcn.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <set>
#include <string>

#include "QmProtocolDriverInterface.h"

namespace {

// Writes the driver's lines from information level up to standard error.
class StderrLogger : public QmLogInterface {
 public:
  bool WriteTrace(const std::string&, int, const char*) override { return true; }
  bool WriteDebug(const std::string&, int, const char*) override { return true; }
  bool WriteInfo(const std::string& m, int l, const char* f) override {
    return Put("INFO", m, l, f);
  }
  bool WriteWarn(const std::string& m, int l, const char* f) override {
    return Put("WARN", m, l, f);
  }
  bool WriteError(const std::string& m, int l, const char* f) override {
    return Put("ERROR", m, l, f);
  }
  bool WriteCritical(const std::string& m, int l, const char* f) override {
    return Put("CRITICAL", m, l, f);
  }
  bool WriteFatal(const std::string& m, int l, const char* f) override {
    return Put("FATAL", m, l, f);
  }
  void EnableThreadIdPrefix(bool) override {}
  LogLevel GetLogLevel() override { return LEVEL_INFO; }
  std::string GetLoggerName() override { return "example"; }

 private:
  static bool Put(const char* level, const std::string& msg, int line, const char* file) {
    std::fprintf(stderr, "[%s] %s (%s:%d)\n", level, msg.c_str(), file, line);
    return true;
  }
};

// The host's job record: the driver reads and writes it in place.
class Job : public QmOAPMessageFile {
 public:
  void SetStatusText(const std::string& text) override { statusText = text; }
  void SetErrorText(const std::string& text) override { errorText = text; }
  void SetTrackingReceipt(const std::string& receipt) override { TrackingReceipt = receipt; }
  bool AddStatusOnce(const std::string& word) override { return words.insert(word).second; }
  bool IsNewResponse(const std::string& answer) override { return answers.insert(answer).second; }
  int FindChoice(const std::string& answer) override {
    int index = 0;
    for (const QmResponseChoice& choice : ResponseChoices) {
      if (choice.Text == answer) return index;
      ++index;
    }
    return -1;
  }
  void SetCallerID(const std::string&) override {}

  std::string statusText, errorText;
  std::set<std::string> words, answers;
};

class Reports : public QmMessengerReportsMngrInterface {
 public:
  bool WriteReport(QmMessageFile* job, ReportsStatus status, const std::string& note) override {
    std::printf("report: job %s status %d %s\n", job->JobId.c_str(), status, note.c_str());
    return true;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 5) {
    std::fprintf(stderr, "usage: %s SERVER_HOST:PORT LISTEN_PORT [HANDSET_PLAIN HANDSET_ASK]\n",
                 argv[0]);
    return 2;
  }
  // Block the stop signals before the plug-in starts any thread: its
  // threads inherit the mask, and the signals wait for the loop below.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  void* plugin = dlopen(QM_DRIVER_PATH, RTLD_NOW | RTLD_LOCAL);
  auto get = reinterpret_cast<QmProtocolDriverInterface* (*)()>(
      plugin ? dlsym(plugin, "GetDriverInstance") : nullptr);
  auto release = reinterpret_cast<void (*)(QmProtocolDriverInterface*)>(
      plugin ? dlsym(plugin, "ReleaseDriverInstance") : nullptr);
  if (get == nullptr || release == nullptr) {
    std::fprintf(stderr, "cannot load %s: %s\n", QM_DRIVER_PATH, dlerror());
    return 1;
  }
  StderrLogger logger;
  Reports reports;
  QmMessageQueue queue;
  QmProtocolDriverInterface* driver = get();
  driver->Logger = &logger;
  driver->ReportsManager = &reports;
  driver->MessageQueue = &queue;
  std::map<std::string, std::string> settings;
  QmMessengerInstConfBasic conf;
  std::snprintf(conf.ListenerPort, sizeof conf.ListenerPort, "%s", argv[2]);
  std::snprintf(conf.ListenerAddress, sizeof conf.ListenerAddress, "127.0.0.1");
  if (!driver->Configure(settings) || !driver->Setup(&conf)) return 1;

  const std::string server = argv[1];
  Job plain, ask;
  for (Job* job : {&plain, &ask}) {
    const bool interactive = job == &ask;
    job->JobId = interactive ? "ask" : "plain";
    job->DeviceId = argc == 5 ? argv[interactive ? 4 : 3] : interactive ? "1002" : "1001";
    job->ServerHost = server.substr(0, server.rfind(':'));
    job->ServerPort = std::atoi(server.substr(server.rfind(':') + 1).c_str());
    job->OapVersion = "4.0";
    job->SubjectText = interactive ? "Alarm" : "Notice";
    job->MessageText = interactive ? "Room 12: will you take it?" : "Fire drill at 10:00";
    job->IsInteractive = job->ExpectsResponse = interactive;
    if (interactive) job->ResponseChoices = {{0, "Accept", "", 0, 0}, {0, "Decline", "", 0, 2}};
    QmProtocolDriverInterface::ReportsStatus status;
    const bool sent = driver->SendAMessage(job, status);
    std::printf("sent %s: status %d receipt '%s' %s\n", job->JobId.c_str(), status,
                job->TrackingReceipt.c_str(), sent ? "" : job->errorText.c_str());
  }

  // The query cycle: ask about the interactive job, print what comes back,
  // every 200 ms for at most 30 s or until a stop signal.
  bool answered = false;
  int stopSignal = 0;
  const timespec pause{0, 200 * 1000 * 1000};
  for (int round = 0; round < 150 && !answered && stopSignal <= 0; ++round) {
    QmProtocolDriverInterface::ReportsStatus status = ask.Status;
    if (!ask.TrackingReceipt.empty()) driver->Send2WayRespQuery(&ask, status);
    {
      QmconCriticalSection guard(queue.Lock.GetLockObj(), true, true, false);
      for (QmMessageFile* job : queue.Jobs) {
        std::printf("handed back %s: status %d '%s'\n", job->JobId.c_str(), job->Status,
                    static_cast<Job*>(job)->statusText.c_str());
        answered = answered || job->Status == QmMessengerReportsMngrInterface::REPLIED ||
                   job->Status >= QmMessengerReportsMngrInterface::REPLIED_SPECIAL_A;
      }
      queue.Jobs.clear();
    }
    stopSignal = sigtimedwait(&stopSignals, nullptr, &pause);
  }
  if (stopSignal > 0) std::printf("stopping on signal %d\n", stopSignal);
  driver->Cleanup();
  release(driver);
  // The library stays loaded until the process ends: threads it started
  // may still be finishing.
  std::printf("%s\n", answered ? "answered" : "not answered");
  return answered ? 0 : 1;
}
