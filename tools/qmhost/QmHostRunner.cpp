#include "QmHostRunner.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <system_error>

#include "QmToolStopSignals.h"
#include "QmToolTrackingId.h"
#include "QmconCriticalSection.h"
#include "QmconFunctions.h"
#include "QmsysEventLogInterface.h"
#include "QmsysSystemLog.h"

namespace {

std::unique_ptr<QmReferenceJob> MakeJob(const QmHostOptions::Job& request) {
  std::unique_ptr<QmReferenceJob> job(new QmReferenceJob());
  job->JobId = request.id;
  job->DeviceId = request.handset;
  job->ServerHost = request.serverHost;
  job->ServerPort = request.serverPort;
  job->OapVersion = request.oapVersion;
  job->SubjectText = request.subject;
  job->MessageText = request.text;
  job->ResponseChoices.assign(request.choices.begin(), request.choices.end());
  job->CustomResponseLabel = request.customLabel;
  job->IsInteractive = request.interactive;
  job->ExpectsResponse = request.interactive;
  job->OapSettingsPresent = request.settingsPresent;
  job->TtlMinutes = request.ttlMinutes;
  job->Priority = request.priority;
  job->Urgent = request.urgent;
  job->StickyMode = request.sticky;
  job->Colour = request.colour;
  job->Intensity = request.intensity;
  job->RepeatCount = request.repeat;
  job->RepeatInterval = request.repeatInterval;
  job->CallerIdPattern = request.callerPattern;
  job->CallerIdDefault = request.callerDefault;
  job->CallerIdFixed = request.callerFixed;
  return job;
}

std::string Receipt(const QmReferenceJob& job) {
  return QmToolTrackingId::FormatReceipt(job.GetTrackingReceipt());
}

}  // namespace

QmHostRunner::QmHostRunner(const QmHostOptions& options, QmToolStopSignals& stop, std::ostream& out,
                           std::ostream& err)
    : m_options(options), m_stop(stop), m_out(out), m_err(err) {}

QmHostRunner::~QmHostRunner() {
  Shutdown();
}

int QmHostRunner::Run() {
  InitialLib();
  if (!m_loader.Load(m_options.plugin)) {
    m_err << "qmhost: error: " << m_loader.GetError() << std::endl;
    return EXIT_NO_PLUGIN;
  }
  StartLogger();
  m_driver = m_loader.GetDriverInstance();
  if (m_driver == nullptr) {
    m_err << "qmhost: error: the plug-in gave no driver object" << std::endl;
    return EXIT_NO_PLUGIN;
  }
  m_driver->Logger = m_logger;
  m_driver->ReportsManager = &m_reports;
  m_driver->MessageQueue = &m_queue;
  if (!SetupDriver()) return EXIT_SETUP_REFUSED;

  bool allSent = SendJobs();
  bool anySent = std::any_of(m_jobs.begin(), m_jobs.end(), [](const Tracked& t) { return t.sent; });
  if (anySent && !Stopped(0)) RunQueryCycle();
  if (m_stopSignal != 0) {
    m_err << "qmhost: stopping on " << QmToolStopSignals::Name(m_stopSignal) << std::endl;
  }
  Shutdown();
  // Jobs left unsent by a stop signal count as incomplete.
  size_t complete = CompleteCount();
  m_out << "summary: " << complete << "/" << m_options.jobs.size() << " jobs complete" << std::endl;
  if (!allSent) return EXIT_SEND_FAILED;
  return complete == m_options.jobs.size() ? EXIT_COMPLETE : EXIT_INCOMPLETE;
}

void QmHostRunner::StartLogger() {
  const std::string configDir = m_options.workdir + "/config";
  std::error_code failure;
  std::filesystem::create_directories(configDir, failure);
  if (failure) {
    m_err << "qmhost: warning: cannot create " << configDir << ": " << failure.message()
          << std::endl;
  }
  // The logging classes report their faults to the system log only; the
  // ones met while the logger is made are shown here as well.
  std::vector<std::string> faults;
  QmsysSystemLog::SetListener(
      [&faults](const std::string& function, QmsysSystemLog::Category, const std::string& text) {
        faults.push_back(function + ": " + text);
      });
  m_logger = QmsysEventLogInterface::CreateInstance(
      "qmhost", QmsysEventLogInterface::SINGLE_THREADED, configDir, "qmhost");
  const bool started = m_logger != nullptr && m_logger->Start();
  QmsysSystemLog::SetListener(nullptr);
  for (const std::string& fault : faults) m_err << "qmhost: warning: " << fault << std::endl;
  if (!started) {
    m_err << "qmhost: warning: no event log in " << configDir << "; running without one"
          << std::endl;
    m_logger = nullptr;
  }
}

bool QmHostRunner::SetupDriver() {
  std::map<std::string, std::string> settings{
      {"MessageStore",
       m_options.statePath.empty() ? m_options.workdir + "/qmhost-state.db" : m_options.statePath}};
  if (!m_driver->Configure(settings)) {
    m_err << "qmhost: error: the driver refused --state '" << settings["MessageStore"] << "'"
          << std::endl;
    return false;
  }
  QmMessengerInstConfBasic conf;
  std::snprintf(conf.InstanceName, sizeof(conf.InstanceName), "qmhost");
  std::snprintf(conf.ListenerPort, sizeof(conf.ListenerPort), "%s", m_options.listenPort.c_str());
  std::snprintf(conf.ListenerAddress, sizeof(conf.ListenerAddress), "%s",
                m_options.listenAddress.c_str());
  if (m_driver->Setup(&conf)) return true;
  m_err << "qmhost: error: the driver refused Setup on " << m_options.listenAddress << ":"
        << m_options.listenPort << std::endl;
  return false;
}

bool QmHostRunner::SendJobs() {
  bool allSent = true;
  for (const QmHostOptions::Job& request : m_options.jobs) {
    if (Stopped(0)) break;
    Tracked tracked{&request, MakeJob(request), {}, false, {}};
    QmProtocolDriverInterface::ReportsStatus status = QmMessengerReportsMngrInterface::NO_STATUS;
    tracked.sent = m_driver->SendAMessage(tracked.job.get(), status);
    tracked.seen.insert(status);
    m_out << "job " << request.id << " sent status " << status << " "
          << QmHostOptions::StatusName(status) << " receipt '" << Receipt(*tracked.job)
          << "' error '" << tracked.job->GetErrorText() << "'" << std::endl;
    if (!tracked.sent) {
      m_err << "qmhost: error: job " << request.id
            << " was not accepted: " << tracked.job->GetErrorText() << std::endl;
      allSent = false;
    }
    m_jobs.push_back(std::move(tracked));
  }
  return allSent;
}

void QmHostRunner::RunQueryCycle() {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(m_options.durationMs);
  while (true) {
    for (Tracked& tracked : m_jobs) {
      // Only an accepted interactive message has a receipt to ask about.
      if (!tracked.sent || tracked.job->GetTrackingReceipt().empty()) continue;
      QmProtocolDriverInterface::ReportsStatus status = tracked.job->Status;
      m_driver->Send2WayRespQuery(tracked.job.get(), status);
    }
    DrainQueue();
    if (m_options.untilExpected && CompleteCount() == m_options.jobs.size()) return;
    Clock::time_point now = Clock::now();
    if (now >= deadline) return;
    const auto pause =
        std::min<Clock::duration>(std::chrono::milliseconds(m_options.pollMs), deadline - now);
    if (Stopped(
            static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(pause).count())))
      return;
  }
}

bool QmHostRunner::Stopped(int milliseconds) {
  if (m_stopSignal == 0) m_stopSignal = m_stop.Wait(milliseconds);
  return m_stopSignal != 0;
}

void QmHostRunner::DrainQueue() {
  std::vector<QmMessageFile*> handedBack;
  {
    QmconCriticalSection guard(m_queue.Lock.GetLockObj(), true, true, false);
    handedBack.assign(m_queue.Jobs.begin(), m_queue.Jobs.end());
    m_queue.Jobs.clear();
  }
  for (QmMessageFile* file : handedBack) {
    auto found = std::find_if(m_jobs.begin(), m_jobs.end(),
                              [file](const Tracked& t) { return t.job.get() == file; });
    if (found != m_jobs.end()) PrintHandBack(*found);
  }
}

void QmHostRunner::PrintHandBack(Tracked& tracked) {
  QmReferenceJob& job = *tracked.job;
  if (tracked.pending.empty()) {
    for (const QmReferenceJob::StatusChange& change : job.TakeStatusChanges()) {
      tracked.pending.push_back(change);
    }
  }
  QmReferenceJob::StatusChange change{job.Status, job.GetStatusText()};
  if (!tracked.pending.empty()) {
    change = tracked.pending.front();
    tracked.pending.pop_front();
  }
  tracked.seen.insert(change.status);
  m_out << "job " << job.JobId << " status " << change.status << " "
        << QmHostOptions::StatusName(change.status) << " text '" << change.text << "' error '"
        << job.GetErrorText() << "' receipt '" << Receipt(job) << "'" << std::endl;
}

bool QmHostRunner::Complete(const Tracked& tracked) const {
  // A job the server never accepted is not complete, whatever it expects.
  return tracked.sent &&
         std::includes(tracked.seen.begin(), tracked.seen.end(), tracked.request->expected.begin(),
                       tracked.request->expected.end());
}

size_t QmHostRunner::CompleteCount() const {
  return static_cast<size_t>(std::count_if(m_jobs.begin(), m_jobs.end(),
                                           [this](const Tracked& t) { return Complete(t); }));
}

void QmHostRunner::Shutdown() {
  if (m_driver != nullptr) {
    m_driver->Cleanup();
    m_loader.ReleaseDriverInstance(m_driver);
    m_driver = nullptr;
  }
  if (m_logger != nullptr) {
    m_logger->Stop();
    m_logger = nullptr;
    QmsysEventLogInterface::ReleaseAll();
  }
}
